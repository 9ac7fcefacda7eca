#pragma once

// ModemManager and oFono on the private bus, with modems and calls as a test wants them. The signals are out before a
// function returns, so who asks next is answered by what they say.

#include <string>
#include <vector>

#include "support/private_bus.h"
#include "tapi/patience.h"

namespace zr::test {

// A mock may be slow on a busy computer. For the children of tests, too.
inline const bool has_patience = (platform::voice_patience = 60'000) != 0;

enum class ModemState { Unknown, Dialing, RingingOut, RingingIn, Active, Held, Waiting, Terminated };

class MockModems {
public:
    virtual ~MockModems() = default;
    const std::string& why() const { return mock_.why(); }
    Background& process() { return mock_.process(); }
    const MockService& service() const { return mock_; }

    // Their paths. A modem without voice carries none.
    virtual std::string add_modem(int number, bool voice = true) = 0;
    virtual void remove_modem(const std::string& modem) = 0;
    std::string ring(const std::string& modem, const std::string& number, ModemState state = ModemState::RingingIn) {
        return test("Ring", "osi", "o",
                    {platform::bus_text(modem, 'o'), platform::bus_text(number), of(static_cast<int>(state))});
    }
    void enter(const std::string& call, int state) {
        test("Enter", "oi", "", {platform::bus_text(call, 'o'), of(state)});
    }
    void enter(const std::string& call, ModemState state) { enter(call, static_cast<int>(state)); }
    void remove_call(const std::string& call) { test("Remove", "o", "", {platform::bus_text(call, 'o')}); }
    // How often a method was called on an object.
    std::size_t count_calls(const std::string& path, const std::string& method) const {
        const auto answer = mock_.call(MockService::kMock, "GetMethodCalls", {platform::bus_text(method)}, path);
        return platform::items_of(answer.first()).size();
    }

protected:
    MockModems(const char* name, const char* path, const char* interface) : mock_(name, path, interface) {}

    static platform::BusValue of(int value) { return platform::bus_integer(value, 'i'); }
    std::string test(const std::string& method, const std::string&, const std::string&,
                     std::vector<platform::BusValue> arguments) const {
        const auto answer = mock_.call("com.example.Test", method, std::move(arguments));
        EXPECT_EQ(answer.result, platform::BusResult::Answered) << method << ": " << answer.error;
        return std::string(platform::text_of(answer.first()));
    }
    void define(const std::string& method, const std::string& in, const std::string& out, const std::string& code) {
        EXPECT_TRUE(mock_.add_method("com.example.Test", method, in, out, code));
    }

    MockService mock_;
};

class MockModemManager final : public MockModems {
public:
    MockModemManager()
        : MockModems("org.freedesktop.ModemManager1", "/org/freedesktop/ModemManager1",
                     "org.freedesktop.ModemManager1") {
        if (!why().empty()) return;
        mock_.add_method("org.freedesktop.DBus.ObjectManager", "GetManagedObjects", "", "a{oa{sa{sv}}}",
                         "ret = dbus.Dictionary({dbus.ObjectPath(p): dbus.Dictionary({i: dbus.Dictionary(v, "
                         "signature='sv') for i, v in o.props.items()}, signature='sa{sv}') for p, o in "
                         "objects.items() if '/Modem/' in p}, signature='oa{sa{sv}}')");
        define("Modem", "ib", "o", R"py(
M = 'org.freedesktop.ModemManager1'
ret = '/org/freedesktop/ModemManager1/Modem/%d' % args[0]
self.AddObject(ret, M + '.Modem', {'Manufacturer': 'Maker', 'Model': 'Model %d' % args[0],
    'OwnNumbers': dbus.Array(['+4930000%d' % args[0]], signature='s')}, [])
if args[1]:
    objects[ret].AddProperties(M + '.Modem.Voice', {'Calls': dbus.Array([], signature='o'), 'EmergencyOnly': False})
    objects[ret].AddMethods(M + '.Modem.Voice', [
        ('CreateCall', 'a{sv}', 'o', "ret = objects['/org/freedesktop/ModemManager1'].test_call(self.path, "
                                     "args[0]['number'], 0)"),
        ('DeleteCall', 'o', '', "objects['/org/freedesktop/ModemManager1'].test_remove(args[0])"),
        ('HoldAndAccept', '', '', "objects['/org/freedesktop/ModemManager1'].test_hold(self.path)")])
self.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded', 'oa{sa{sv}}',
    [dbus.ObjectPath(ret), dbus.Dictionary({i: dbus.Dictionary(v, signature='sv')
                                            for i, v in objects[ret].props.items()}, signature='sa{sv}')])
)py");
        define("Unplug", "o", "", R"py(
self.RemoveObject(args[0])
self.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesRemoved', 'oas',
    [args[0], dbus.Array(['org.freedesktop.ModemManager1.Modem'], signature='s')])
)py");
        define("Prepare", "", "", R"py(
M = 'org.freedesktop.ModemManager1'
import types
def calls_of(modem):
    return objects[modem].props[M + '.Modem.Voice']['Calls']
def set_calls(modem, calls):
    objects[modem].UpdateProperties(M + '.Modem.Voice', {'Calls': dbus.Array(calls, signature='o')})
def enter(self, call, state):
    o = objects[call]
    old = o.props[M + '.Call']['State']
    o.UpdateProperties(M + '.Call', {'State': dbus.Int32(state), 'StateReason': dbus.Int32(4 if state == 7 else 0)})
    o.EmitSignal(M + '.Call', 'StateChanged', 'iiu', [dbus.Int32(old), dbus.Int32(state), dbus.UInt32(0)])
def call(self, modem, number, state):
    self.test_count = getattr(self, 'test_count', 0) + 1
    path = '/org/freedesktop/ModemManager1/Call/%d' % self.test_count
    root = "objects['/org/freedesktop/ModemManager1']"
    self.AddObject(path, M + '.Call', {'State': dbus.Int32(state), 'StateReason': dbus.Int32(0), 'Number': number,
        'Direction': dbus.Int32(1 if state in (3, 6) else 2)}, [
        ('Accept', '', '', root + ".test_enter(self.path, 4)"),
        ('Start', '', '', root + ".test_enter(self.path, 1)"),
        ('Hangup', '', '', root + ".test_enter(self.path, 7)")])
    objects[path].test_modem = modem
    set_calls(modem, list(calls_of(modem)) + [dbus.ObjectPath(path)])
    objects[modem].EmitSignal(M + '.Modem.Voice', 'CallAdded', 'o', [dbus.ObjectPath(path)])
    return dbus.ObjectPath(path)
def remove(self, path):
    modem = objects[path].test_modem
    self.RemoveObject(path)
    set_calls(modem, [c for c in calls_of(modem) if c != path])
    objects[modem].EmitSignal(M + '.Modem.Voice', 'CallDeleted', 'o', [dbus.ObjectPath(path)])
def hold(self, modem):
    for c in list(calls_of(modem)):
        state = objects[c].props[M + '.Call']['State']
        if state == 4: enter(self, c, 5)
        if state == 6: enter(self, c, 4)
for f, name in ((call, 'test_call'), (remove, 'test_remove'), (enter, 'test_enter'), (hold, 'test_hold')):
    f.__globals__.update({'M': M, 'calls_of': calls_of, 'set_calls': set_calls, 'enter': enter})
    setattr(self, name, types.MethodType(f, self))
)py");
        test("Prepare", "", "", {});
        define("Ring", "osi", "o", "ret = self.test_call(*args)");
        define("Enter", "oi", "", "self.test_enter(*args)");
        define("Remove", "o", "", "self.test_remove(*args)");
    }

    std::string add_modem(int number, bool voice = true) override {
        return test("Modem", "ib", "o", {of(number), platform::bus_integer(voice ? 1 : 0, 'b')});
    }
    void remove_modem(const std::string& modem) override { test("Unplug", "o", "", {platform::bus_text(modem, 'o')}); }
};

class MockOfono final : public MockModems {
public:
    // The next call gets the path that the first one had, as with the service itself.
    void count_anew() { test("CountAnew", "", "", {}); }
    // A call goes, and another one has its path, before anybody can ask.
    void replace(const std::string& call, const std::string& number) {
        EXPECT_EQ(test("Replace", "os", "o", {platform::bus_text(call, 'o'), platform::bus_text(number)}), call);
    }
    // Calls come, and nobody is told.
    void be_silent(bool silent) { test("BeSilent", "b", "", {platform::bus_integer(silent ? 1 : 0, 'b')}); }

    MockOfono() : MockModems("org.ofono", "/", "org.ofono.Manager") {
        if (!why().empty()) return;
        mock_.add_method("org.ofono.Manager", "GetModems", "", "a(oa{sv})",
                         "ret = dbus.Array([(dbus.ObjectPath(p), o.props['org.ofono.Modem']) for p, o in "
                         "sorted(objects.items()) if p.startswith('/modem') and '/call' not in p], "
                         "signature='(oa{sv})')");
        define("Prepare", "", "", R"py(
import types
STATES = ['unknown', 'dialing', 'alerting', 'incoming', 'active', 'held', 'waiting', 'disconnected']
V, C = 'org.ofono.VoiceCallManager', 'org.ofono.VoiceCall'
def modem(self, number, voice):
    path = '/modem%d' % number
    self.AddObject(path, 'org.ofono.Modem', {'Manufacturer': 'Maker', 'Model': 'Model %d' % number,
        'Interfaces': dbus.Array([V] if voice else ['org.ofono.SimManager'], signature='s')}, [])
    if voice:
        objects[path].AddMethods(V, [
            ('GetCalls', '', 'a(oa{sv})', "ret = dbus.Array([(dbus.ObjectPath(p), o.props['org.ofono.VoiceCall']) "
                "for m, (p, o) in zip([self.path] * len(objects), sorted(objects.items())) if p.startswith(m + '/call')], signature='(oa{sv})')"),
            ('Dial', 'ss', 'o', "ret = objects['/'].test_call(self.path, args[0], 1)"),
            ('HoldAndAnswer', '', '', "objects['/'].test_hold(self.path)")])
    self.EmitSignal('org.ofono.Manager', 'ModemAdded', 'oa{sv}', [dbus.ObjectPath(path),
        objects[path].props['org.ofono.Modem']])
    return dbus.ObjectPath(path)
def enter(self, call, state):
    if state == 7: return remove(self, call)
    word = STATES[state] if state < 8 else 'nonsense %d' % state
    objects[call].props[C]['State'] = dbus.String(word, variant_level=1)
    objects[call].EmitSignal(C, 'PropertyChanged', 'sv', ['State', word])
def call(self, modem, number, state):
    self.test_count = getattr(self, 'test_count', 0) + 1
    path = '%s/call%02d' % (modem, self.test_count)
    self.AddObject(path, C, {'State': STATES[state], 'LineIdentification': number, 'Name': ''}, [
        ('Answer', '', '', "objects['/'].test_enter(self.path, 4)"),
        ('Hangup', '', '', "objects['/'].test_enter(self.path, 7)")])
    objects[path].test_modem = modem
    if not getattr(self, 'test_silent', False):
        objects[modem].EmitSignal(V, 'CallAdded', 'oa{sv}', [dbus.ObjectPath(path), objects[path].props[C]])
    return dbus.ObjectPath(path)
def remove(self, path):
    modem = objects[path].test_modem
    self.RemoveObject(path)
    objects[modem].EmitSignal(V, 'CallRemoved', 'o', [dbus.ObjectPath(path)])
def hold(self, modem):
    for p in [p for p in objects if p.startswith(modem + '/call')]:
        state = objects[p].props[C]['State']
        if state == 'active': enter(self, p, 5)
        if state == 'waiting': enter(self, p, 4)
for f in (modem, call, remove, enter, hold):
    f.__globals__.update({'STATES': STATES, 'V': V, 'C': C, 'remove': remove, 'enter': enter})
    setattr(self, 'test_' + f.__name__, types.MethodType(f, self))
)py");
        test("Prepare", "", "", {});
        define("Modem", "ib", "o", "ret = self.test_modem(*args)");
        define("Ring", "osi", "o", "ret = self.test_call(*args)");
        define("Enter", "oi", "", "self.test_enter(*args)");
        define("Remove", "o", "", "self.test_remove(*args)");
        define("CountAnew", "", "", "self.test_count = 0");
        define("BeSilent", "b", "", "self.test_silent = args[0]");
        define("Replace", "os", "o", R"py(
modem = objects[args[0]].test_modem
self.test_remove(args[0])
self.test_count = int(args[0][-2:]) - 1
ret = self.test_call(modem, args[1], 3)
)py");
        define("Unplug", "o", "",
               "self.RemoveObject(args[0]); self.EmitSignal('org.ofono.Manager', 'ModemRemoved', 'o', [args[0]])");
    }

    std::string add_modem(int number, bool voice = true) override {
        return test("Modem", "ib", "o", {of(number), platform::bus_integer(voice ? 1 : 0, 'b')});
    }
    void remove_modem(const std::string& modem) override { test("Unplug", "o", "", {platform::bus_text(modem, 'o')}); }
};

}  // namespace zr::test
