const tip = document.getElementById('tip');
let at = null;
function show(cell, x, y) {
  if (cell.title) { cell.dataset.text = cell.title; cell.removeAttribute('title'); }
  tip.textContent = cell.parentNode.dataset.name + ' ' + cell.dataset.text;
  tip.hidden = false;
  const box = tip.getBoundingClientRect();
  const left = Math.max(4, Math.min(x + 14, innerWidth - box.width - 8));
  const top = y + 20 + box.height > innerHeight ? y - box.height - 10 : y + 20;
  tip.style.transform = 'translate(' + left + 'px,' + top + 'px)';
}
function leave() {
  if (at) { at.classList.remove('at'); }
  at = null;
  tip.hidden = true;
}
function enter(cell) {
  leave();
  at = cell;
  at.classList.add('at');
  at.scrollIntoView({block: 'nearest'});
  const box = at.getBoundingClientRect();
  show(at, box.left, box.top);
}
for (const grid of document.querySelectorAll('.grid[data-name]')) {
  const cells = Array.from(grid.querySelectorAll('i'));
  /* The next cell above or below the one at `now`. */
  function along(now, step) {
    let next = now + step;
    while (cells[next] ? cells[next].offsetLeft !== cells[now].offsetLeft : false) { next += step; }
    return cells[next] ? next : now;
  }
  grid.addEventListener('pointermove', function (event) {
    if (event.target.localName !== 'i') { tip.hidden = true; return; }
    show(event.target, event.clientX, event.clientY);
  });
  grid.addEventListener('pointerleave', leave);
  grid.addEventListener('focus', function () {
    if (grid.matches(':focus-visible')) { enter(cells[0]); }
  });
  grid.addEventListener('blur', leave);
  grid.addEventListener('keydown', function (event) {
    const now = Math.max(0, cells.indexOf(at));
    const next = {ArrowLeft: Math.max(0, now - 1), ArrowRight: Math.min(cells.length - 1, now + 1),
                  ArrowUp: along(now, -1), ArrowDown: along(now, 1), Home: 0,
                  End: cells.length - 1}[event.key];
    if (next === undefined) { return; }
    event.preventDefault();
    enter(cells[next]);
  });
}
const findings = document.getElementById('findings');
if (findings) {
  const filter = findings.querySelector('.filter');
  const rows = Array.from(findings.querySelectorAll('tr[data-kind]'));
  const texts = rows.map(function (row) {
    return (row.dataset.kind + ' ' + row.textContent).toLowerCase();
  });
  const fields = filter.elements;
  const choose = function () {
    const words = fields.words.value.toLowerCase().split(/\s+/);
    let shown = 0;
    rows.forEach(function (row, i) {
      const chosen = ['severity', 'table', 'kind'].every(function (name) {
        return fields[name].value === '' || fields[name].value === row.dataset[name];
      });
      const found = words.every(function (word) { return texts[i].includes(word); });
      row.hidden = !(chosen ? found : false);
      shown += row.hidden ? 0 : 1;
    });
    fields.shown.value = shown + ' of ' + rows.length + ' listed';
  };
  filter.addEventListener('input', choose);
  filter.addEventListener('submit', function (event) { event.preventDefault(); });
  filter.hidden = false;
  choose();
}
