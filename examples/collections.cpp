// A mailbox's messages in an array, a map of what each sender sent, a list of the large ones, a report in a stream.
//
// Containers hold bytes or pointers and never own what the pointers point to. Whoever asks for an iterator deletes it.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

struct Message {
    const char* sender;
    int bytes;
};

// The map keeps the key's pointer, so the text must outlive it; the value is a number of pointer width.
void add_bytes(ZrStringLongHashMap& sent, const Message& message) {
    void* key = const_cast<char*>(message.sender);
    const auto before = reinterpret_cast<std::intptr_t>(sent.get(key));
    sent.put(key, reinterpret_cast<void*>(before + message.bytes));
}

void write(BufferStream& stream, const char* text) {
    stream.Write(text, static_cast<ULONG>(std::strlen(text)), nullptr);
}

void write_line(BufferStream& stream, const char* name, std::intptr_t number) {
    char line[128];
    std::snprintf(line, sizeof line, "%s: %d\n", name, static_cast<int>(number));
    write(stream, line);
}

}  // namespace

int main() {
    const Message received[] = {{"jo@example.org", 1200},
                                {"al@example.org", 48000},
                                {"jo@example.org", 300},
                                {"list@example.net", 9000},
                                {"al@example.org", 52000}};

    // An array holds the elements themselves, one behind the other, and grows by half of its first capacity.
    ZrArray messages(sizeof(Message), 4);
    for (const Message& message : received) {
        if (!messages.appendElement(&message)) return 1;
    }

    // Nothing is appended while the list points into the array: growing would move the elements.
    ZrStringLongHashMap sent(16);
    ZrTypedList<Message> large;
    ArrayIterator walk(messages.getArray(), messages.getSizeOfElement(), messages.getNumberOfElement());
    while (walk.hasNext()) {
        auto* message = static_cast<Message*>(walk.next());
        add_bytes(sent, *message);
        if (message->bytes > 5000) large.appendElement(message);
    }

    BufferStream report;
    write_line(report, "messages", messages.getNumberOfElement());
    write_line(report, "senders", sent.size());
    const std::unique_ptr<ZrIterator> senders(sent.keys());
    while (senders && senders->hasNext()) {
        auto* sender = static_cast<char*>(senders->next());
        write_line(report, sender, reinterpret_cast<std::intptr_t>(sent.get(sender)));
    }
    const std::unique_ptr<ZrTypedIterator<Message>> larger(large.iterator());
    while (larger && larger->hasNext()) {
        const Message* message = larger->next();
        write_line(report, "large", message->bytes);
    }
    std::fwrite(report.GetBuffer(), 1, report.GetLength(), stdout);
}
