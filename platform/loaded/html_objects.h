#pragma once

// The script that keeps the objects of a document for the control, in a world of its own: the document's scripts see
// neither it nor what it has changed, and it is not led astray by what they have.
//
// What it gives is a text whose first letter says what it is: e undefined, n null, t true, f false, i a whole number,
// d another, s a text, u one as four hexadecimal digits a unit (where surrogates are alone), o the number of an object;
// x what was thrown, m no such member, g no such object.

inline constexpr char kObjectsScript[] = R"js((() => {
  const objects = new Map(), numbers = new WeakMap();
  let last = 0;
  const kept = v => {
    let id = numbers.get(v);
    if (id === undefined) { id = ++last; numbers.set(v, id); }
    const entry = objects.get(id);
    if (entry) entry.given++; else objects.set(id, {object: v, given: 1});
    return 'o' + id;
  };
  const text = s => {
    if (s.isWellFormed()) return 's' + s;
    const units = [];
    for (let i = 0; i < s.length; i++) units.push(s.charCodeAt(i).toString(16).padStart(4, '0'));
    return 'u' + units.join('');
  };
  const out = v => {
    if (v === undefined) return 'e';
    if (v === null) return 'n';
    switch (typeof v) {
      case 'boolean': return v ? 't' : 'f';
      case 'number': return (v === (v | 0) ? 'i' : 'd') + v;
      case 'string': return text(v);
      case 'symbol': case 'bigint': return text(String(v));
      default: return kept(v);
    }
  };
  const on = (id, action) => {
    const entry = objects.get(id);
    if (!entry) return 'g';
    try { return action(entry.object); } catch (e) { return 'x' + e; }
  };
  const named = (o, name, anyCase) => {
    if (name in o) return name;
    if (!anyCase) return undefined;
    const wanted = name.toLowerCase();
    for (let at = o; at; at = Object.getPrototypeOf(at))
      for (const key of Object.getOwnPropertyNames(at)) if (key.toLowerCase() === wanted) return key;
    return undefined;
  };
  globalThis.zr = {
    root: () => kept(document),
    value: n => objects.get(n).object,
    get: (id, name) => on(id, o => name === '' ? text(String(o)) : name in o ? out(o[name]) : 'm'),
    put: (id, name, v) => on(id, o => { o[name] = v; return 'e'; }),
    call: (id, name, list, orGet) => on(id, o => {
      const f = name === '' ? o : o[name];
      const callable = typeof f === 'function' || f instanceof HTMLAllCollection;
      if (callable) return out(name === '' ? f(...list) : Reflect.apply(f, o, list));
      return orGet && list.length === 0 && (name === '' || name in o) ? out(f) : 'm';
    }),
    name: (id, name, anyCase) => on(id, o => {
      const found = named(o, name, anyCase);
      return found === undefined ? 'm' : text(found);
    }),
    next: (id, name) => on(id, o => {
      let found = name === '';
      for (const key in o) { if (found) return text(key); if (key === name) found = true; }
      return 'm';
    }),
    remove: (id, name) => on(id, o => Reflect.deleteProperty(o, name) ? 't' : 'f'),
    release: list => {
      for (const [id, given] of list) {
        const entry = objects.get(id);
        if (entry && (entry.given -= given) <= 0) objects.delete(id);
      }
    },
    live: () => 'i' + objects.size,
    width: () => 'i' + document.documentElement.scrollWidth,
    height: () => 'i' + document.documentElement.scrollHeight,
    anchor: name => {
      const at = document.getElementById(name) || document.getElementsByName(name)[0];
      if (at) at.scrollIntoView();
      return at ? 't' : 'f';
    },
  };
})())js";

// In every world: an image whose source is given to it once more is loaded once more, as on the handheld.
inline constexpr char kImagesScript[] = R"js((() => {
  const source = Object.getOwnPropertyDescriptor(HTMLImageElement.prototype, 'src');
  Object.defineProperty(HTMLImageElement.prototype, 'src', {...source, set(v) {
    if (source.get.call(this) === String(v)) this.removeAttribute('src');
    source.set.call(this, v);
  }});
})())js";
