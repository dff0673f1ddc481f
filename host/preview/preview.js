// The preview's behaviour. It runs in the outer document only: the frame
// that shows the merged page is sandboxed without scripts, so its locks are
// drawn, and its clicks handled, from here. Nothing taken from the page is
// ever turned into markup: texts go in through textContent and attributes.
//
// Once everything is drawn the root element gets data-qz-ready, which holds
// how many milliseconds the drawing took.
'use strict';
(function () {
  const frame = document.getElementById('qz-page');
  const entries = Array.from(document.querySelectorAll('#qz-entries > .qz-entry'));
  const listed = JSON.parse(document.getElementById('qz-locks').textContent);
  const search = document.getElementById('qz-search');
  const status = document.getElementById('qz-status');

  let doc = null;            // the frame's document, once loaded
  let places = null;         // the style sheet in the frame that places badges and frames
  const drawn = new Map();   // listed lock index -> { element, badge }
  const unlisted = [];       // { element, badge } for lock elements the list does not hold
  const indexOf = new WeakMap();  // lock element or badge -> listed lock index (-1: unlisted)

  // Pairs the frame's lock elements with the listed locks. Each element takes
  // the first listed lock with its code that no element took yet. Order alone
  // would not do: the browser moves some elements (a lock inside a table goes
  // before it) and keeps others as plain text (inside a title or textarea).
  // Then makes each lock its badge, and its frame when it holds blocks. The
  // page is only read until every lock is paired and measured: a change in
  // between would make the browser restyle the page for every lock.
  function pairLocks() {
    const byCode = new Map();
    listed.forEach((lock, i) => {
      if (!byCode.has(lock.code)) byCode.set(lock.code, { next: 0, locks: [] });
      byCode.get(lock.code).locks.push(i);
    });
    const found = Array.from(doc.getElementsByTagName('qz:lock'), (element) => {
      const waiting = byCode.get(element.getAttribute('code') || '');
      const i = waiting && waiting.next < waiting.locks.length ? waiting.locks[waiting.next++] : -1;
      return { element, i, framed: holdsBlocks(element) };
    });
    const overlay = doc.createDocumentFragment();
    found.forEach(({ element, i, framed }, k) => {
      const badge = doc.createElement('qz-badge');
      badge.id = 'qz-badge-' + k;
      const lock = { element, badge, frame: framed ? doc.createElement('qz-frame') : null };
      if (lock.frame) lock.frame.id = 'qz-frame-' + k;
      indexOf.set(element, i);
      indexOf.set(badge, i);
      if (i < 0) {
        badge.textContent = '!';
        badge.title = 'A lock the preview did not find in the merged page';
        badge.setAttribute('data-qz-unlisted', '');
        unlisted.push(lock);
      } else {
        const entry = entries[listed[i].entry];
        badge.textContent = entry.dataset.label;
        badge.title = 'Lock ' + (i + 1) + ': server code ' + entry.dataset.label;
        element.setAttribute('data-qz-lock', String(i));
        drawn.set(i, lock);
      }
      if (lock.frame) overlay.appendChild(lock.frame);
      overlay.appendChild(badge);
    });
    doc.documentElement.appendChild(overlay);
  }

  // Whether the lock holds a box of its own (a paragraph, a list item): an
  // outline of the inline lock would then miss it, so it gets a frame drawn
  // around it instead.
  function holdsBlocks(element) {
    const win = doc.defaultView;
    for (const inner of element.querySelectorAll('*')) {
      const display = win.getComputedStyle(inner).display;
      if (display !== 'none' && display !== 'contents' && !display.startsWith('inline')) return true;
    }
    return false;
  }

  // The first rectangle of the lock that has an area, else its first one,
  // else null when the page does not render it (inside an element not shown).
  function firstRect(rects) {
    for (const rect of rects) if (rect.width > 0 && rect.height > 0) return rect;
    return rects.length ? rects[0] : null;
  }

  // A rule that puts the node with that id at x, y (and gives it a size).
  function placeRule(id, x, y, width, height) {
    const size = width === undefined ? '' : 'width:' + width + 'px!important;height:' + height + 'px!important;';
    return '#' + id + '{left:' + x + 'px!important;top:' + y + 'px!important;' + size + '}';
  }

  // Puts each badge just above the top left corner of its lock, or inside
  // the top right corner of a framed lock, where blocks rarely have text;
  // moved right while it would cover one of the badges placed just before.
  // All sizes are read before anything moves, and the places go into one
  // style sheet: moving the badges one by one would make the browser lay the
  // page out again for every lock.
  function placeBadges() {
    const win = doc.defaultView;
    const locks = [...drawn.values(), ...unlisted];
    for (const lock of locks) lock.badge.hidden = false;
    const spots = locks.map((lock) => {
      const rect = firstRect(lock.element.getClientRects());
      if (!rect) return null;
      const all = lock.frame ? lock.element.getBoundingClientRect() : null;
      return { rect, all, width: lock.badge.offsetWidth, height: lock.badge.offsetHeight };
    });
    const placed = [], rules = [];
    locks.forEach((lock, k) => {
      const spot = spots[k];
      lock.badge.hidden = !spot;
      if (lock.frame) lock.frame.hidden = !spot;
      if (!spot) return;
      const { rect, all, width, height } = spot;
      let x = rect.left + win.scrollX - 2;
      let y = rect.top + win.scrollY - height - 1;
      if (all) {
        rules.push(placeRule(lock.frame.id, all.left + win.scrollX - 2, all.top + win.scrollY - 2, all.width + 4, all.height + 4));
        x = all.right + win.scrollX - width - 2;
        y = all.top + win.scrollY;
      }
      x = Math.max(0, x);
      y = Math.max(0, y);
      const near = placed.slice(-40);
      for (let tries = 0; tries < 40; ++tries) {
        const hit = near.find((p) => x < p.x + p.width + 2 && p.x < x + width + 2 && Math.abs(p.y - y) < height);
        if (!hit) break;
        x = hit.x + hit.width + 3;
      }
      placed.push({ x, y, width });
      rules.push(placeRule(lock.badge.id, x, y));
    });
    places.textContent = rules.join('\n');
  }

  // Marks the lock buttons of locks that are not drawn, saying why.
  function markChips() {
    for (const chip of document.querySelectorAll('.qz-chip')) {
      const lock = drawn.get(Number(chip.dataset.lock));
      if (lock && !lock.badge.hidden) continue;
      chip.classList.add('qz-not-drawn');
      chip.title = lock ? 'This lock is in the page but not shown' : 'The browser keeps this lock as text (inside a title, a textarea or a script)';
    }
  }

  // Unselects everything, in the panel and in the page.
  function clearSelection() {
    for (const node of document.querySelectorAll('.qz-selected')) node.classList.remove('qz-selected');
    for (const node of doc.querySelectorAll('[data-qz-selected]')) node.removeAttribute('data-qz-selected');
  }

  // Selects a panel entry and its locks in the page, or only the lock given,
  // and brings both into view.
  function select(entryIndex, lockIndex) {
    const entry = entries[entryIndex];
    if (!entry) return;
    clearSelection();
    entry.classList.add('qz-selected');
    entry.scrollIntoView({ block: 'nearest' });
    const locks = lockIndex >= 0 ? [lockIndex] : Array.from(entry.querySelectorAll('.qz-chip'), (c) => Number(c.dataset.lock));
    let first = null;
    for (const i of locks) {
      const chip = entry.querySelector('.qz-chip[data-lock="' + i + '"]');
      if (chip) chip.classList.add('qz-selected');
      const lock = drawn.get(i);
      if (!lock) continue;
      lock.element.setAttribute('data-qz-selected', '');
      lock.badge.setAttribute('data-qz-selected', '');
      if (lock.frame) lock.frame.setAttribute('data-qz-selected', '');
      if (!first && !lock.badge.hidden) first = lock.badge;
    }
    if (first) first.scrollIntoView({ block: 'center', inline: 'nearest' });
  }

  // A click on a lock or its badge selects it; no click in the page may
  // follow a link, which would take the page out of the frame.
  function onPageClick(event) {
    const target = event.target && event.target.closest ? event.target : null;
    if (target && target.closest('a[href], area[href]')) event.preventDefault();
    const hit = target && target.closest('qz-badge, qz\\:lock');
    if (!hit || !indexOf.has(hit)) return;
    event.preventDefault();
    const i = indexOf.get(hit);
    if (i >= 0) select(listed[i].entry, i);
  }

  // A click on an entry selects it with its locks; on a lock button, that lock.
  function onPanelClick(event) {
    const entry = event.target.closest('.qz-entry');
    if (!entry) return;
    const chip = event.target.closest('.qz-chip');
    select(Number(entry.dataset.entry), chip ? Number(chip.dataset.lock) : -1);
  }

  // Enter or space on a focused entry does what a click does.
  function onPanelKey(event) {
    if (event.key !== 'Enter' && event.key !== ' ') return;
    if (!event.target.classList.contains('qz-entry')) return;
    event.preventDefault();
    select(Number(event.target.dataset.entry), -1);
  }

  // Shows only the entries and warnings whose text holds what was typed
  // (letter case ignored): their code, number, line or state.
  function filter() {
    const wanted = search.value.trim().toLowerCase();
    for (const item of document.querySelectorAll('.qz-entry, .qz-warning')) {
      item.hidden = wanted !== '' && !item.textContent.toLowerCase().includes(wanted);
    }
  }

  // Styles the frame, draws its locks, and from then on answers clicks,
  // keys, typing and resizing.
  function start() {
    const began = performance.now();
    doc = frame.contentDocument;
    const style = doc.importNode(document.getElementById('qz-frame-style').content, true);
    (doc.head || doc.documentElement).appendChild(style);
    places = doc.createElement('style');
    doc.documentElement.appendChild(places);
    pairLocks();
    placeBadges();
    markChips();
    doc.addEventListener('click', onPageClick, true);
    doc.defaultView.addEventListener('resize', placeBadges);
    document.getElementById('qz-entries').addEventListener('click', onPanelClick);
    document.getElementById('qz-entries').addEventListener('keydown', onPanelKey);
    search.addEventListener('input', filter);
    const shown = [...drawn.values()].filter((lock) => !lock.badge.hidden).length;
    status.textContent += ', ' + shown + ' drawn in the page';
    document.documentElement.setAttribute('data-qz-ready', String(Math.round(performance.now() - began)));
  }

  const loaded = frame.contentDocument;
  if (loaded && loaded.URL === 'about:srcdoc' && loaded.readyState === 'complete') start();
  else frame.addEventListener('load', start, { once: true });
})();
