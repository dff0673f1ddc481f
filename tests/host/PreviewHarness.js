// Appended to a preview by PreviewBrowserTest, with the preview's nonce. Once
// the preview says it is ready, this clicks the locks, their badges and the
// panel entries as a person would (all of them up to 40, else 40 spread
// evenly), types into the search box, and writes what the preview did as
// JSON into <pre id="qz-harness">, ASCII only, for the test to read from the
// dumped DOM. It ends by selecting the lock of the first highlighted word,
// and reports where that word is on the screen.
'use strict';
(function () {
  function click(node) {
    node.dispatchEvent(new MouseEvent('click', { bubbles: true, cancelable: true }));
  }

  // The indices below n to try: all of them, or 40 spread evenly.
  function sample(n) {
    const every = Math.max(1, Math.ceil(n / 40));
    return Array.from({ length: n }, (_, k) => k).filter((k) => k % every === 0);
  }

  function run() {
    const frame = document.getElementById('qz-page');
    const doc = frame.contentDocument;
    const entries = Array.from(document.querySelectorAll('.qz-entry'));
    const locks = Array.from(doc.getElementsByTagName('qz:lock'));
    // The preview makes one badge per lock element, in the elements' order.
    const badges = Array.from(doc.getElementsByTagName('qz-badge'));
    const selectedEntries = () => entries.filter((e) => e.classList.contains('qz-selected')).map((e) => entries.indexOf(e));
    const selectedLocks = () => locks.filter((l) => l.hasAttribute('data-qz-selected')).map((l) => locks.indexOf(l));

    const report = {
      title: document.title, frameTitle: doc.title, badges: badges.length, entries: [], locks: [],
      drawnIn: Number(document.documentElement.getAttribute('data-qz-ready')),
      shownBadges: badges.filter((b) => !b.hidden).length,
    };
    for (const entry of entries) {
      const code = entry.querySelector('.qz-code code');
      report.entries.push({
        kind: ['qz-piece', 'qz-repeat', 'qz-unknown'].find((k) => entry.classList.contains(k)),
        label: entry.dataset.label,
        line: Number(entry.dataset.line),
        state: entry.querySelector('.qz-state').textContent,
        code: code ? code.textContent : null,
        chips: Array.from(entry.querySelectorAll('.qz-chip'), (c) => Number(c.dataset.lock)),
      });
    }
    for (const k of sample(locks.length)) {
      const lock = locks[k];
      click(lock);
      const viaLock = selectedEntries();
      const lockAlone = selectedLocks();
      const badge = badges[k];
      click(badge);
      report.locks.push({
        index: k,
        code: lock.getAttribute('code'),
        badge: badge.textContent,
        badgeShown: !badge.hidden,
        viaLock, viaBadge: selectedEntries(), lockAlone,
      });
    }
    for (const i of sample(entries.length)) {
      click(entries[i].querySelector('.qz-entry-head'));
      report.entries[i].selects = selectedLocks();
      report.entries[i].selectedAlone = selectedEntries();
    }

    // Search for the first line of the longest code.
    const search = document.getElementById('qz-search');
    const longest = report.entries.reduce((a, b) => ((b.code || '').length > (a.code || '').length ? b : a));
    search.value = longest.code.split('\n')[0].toUpperCase();
    search.dispatchEvent(new Event('input'));
    report.search = { query: search.value, target: report.entries.indexOf(longest), shown: entries.filter((e) => !e.hidden).map((e) => entries.indexOf(e)) };
    search.value = '';
    search.dispatchEvent(new Event('input'));
    report.shownAfterClearing = entries.filter((e) => !e.hidden).length;

    const word = doc.querySelector('qz\\:lock font[hilitecolor]');
    if (word) {
      click(word);
      const frameBox = frame.getBoundingClientRect();
      const box = word.getBoundingClientRect();
      const left = frameBox.left + frame.clientLeft + box.left, top = frameBox.top + frame.clientTop + box.top;
      report.highlight = { text: word.textContent, left, top, width: box.width, height: box.height };
    }

    const out = document.createElement('pre');
    out.id = 'qz-harness';
    out.hidden = true;
    out.textContent = JSON.stringify(report).replace(/[^\x20-\x7e]|[<>&]/g,
      (c) => '\\u' + c.charCodeAt(0).toString(16).padStart(4, '0'));
    document.body.appendChild(out);
  }

  if (document.documentElement.hasAttribute('data-qz-ready')) {
    run();
    return;
  }
  const watch = new MutationObserver(() => {
    if (!document.documentElement.hasAttribute('data-qz-ready')) return;
    watch.disconnect();
    run();
  });
  watch.observe(document.documentElement, { attributes: true });
})();
