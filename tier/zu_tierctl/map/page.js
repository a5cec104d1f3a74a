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
  const cells = grid.children;
  grid.addEventListener('pointermove', function (event) {
    if (event.target === grid) { tip.hidden = true; return; }
    show(event.target, event.clientX, event.clientY);
  });
  grid.addEventListener('pointerleave', leave);
  grid.addEventListener('focus', function () {
    if (grid.matches(':focus-visible')) { enter(cells[0]); }
  });
  grid.addEventListener('blur', leave);
  grid.addEventListener('keydown', function (event) {
    const row = getComputedStyle(grid).gridTemplateColumns.split(' ').length;
    const last = cells.length - 1;
    const now = Math.max(0, Array.prototype.indexOf.call(cells, at));
    const next = {ArrowLeft: now - 1, ArrowRight: now + 1, ArrowUp: now - row,
                  ArrowDown: now + row, Home: 0, End: last}[event.key];
    if (next === undefined) { return; }
    event.preventDefault();
    enter(cells[Math.max(0, Math.min(last, next))]);
  });
}
