#pragma once

namespace tierctl {

/* What is the same in the page of every map. Without '<' and '&', so that the page is well-formed
 * XML, too. */

constexpr const char MAP_STYLE[] = R"css(
:root {
  color-scheme: light dark;
  --page: #f6f7f9; --card: #ffffff; --line: #dfe3e8; --text: #1c2430; --soft: #566173;
  --free: #eceff3; --rim: #cfd6de;
  --u1: #c9dff2; --u2: #aecfec; --u3: #8fbce3; --u4: #6fa7d8; --u5: #5092ca; --u6: #347dba;
  --u7: #2068a5; --u8: #12538c;
  --damaged: #c62828; --on-damaged: #ffffff; --unreadable: #6a3fb5; --on-unreadable: #ffffff;
  --finding: #f2a900; --on-finding: #2b1d00; --focus: #d6006c;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #11151b; --card: #191f27; --line: #2c3541; --text: #e6eaf0; --soft: #a3afbf;
    --free: #212833; --rim: #343f4d;
    --u1: #1f3a54; --u2: #234a6d; --u3: #285b87; --u4: #2f6ea3; --u5: #3a83bf; --u6: #4e99d6;
    --u7: #6fb2e8; --u8: #98cbf5;
    --damaged: #ff6b63; --on-damaged: #2a0503; --unreadable: #bb9cf5; --on-unreadable: #1c0b3d;
    --finding: #ffc53d; --on-finding: #2b1d00; --focus: #ff6fb5;
  }
}
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 2rem 1.5rem 4rem; max-width: 78rem; background: var(--page);
  color: var(--text); font: 15px/1.5 system-ui, sans-serif; }
h1 { margin: 0; font-size: 1.6rem; line-height: 1.25; overflow-wrap: anywhere; }
h2 { margin: 0; font-size: 1.1rem; }
p { margin: 0; }
section { margin-top: 1.25rem; padding: 1.1rem 1.25rem 1.25rem; background: var(--card);
  border: 1px solid var(--line); border-radius: 10px; }
.facts { display: flex; flex-wrap: wrap; gap: .4rem 2.25rem; margin: 1rem 0 0; }
.facts dt { color: var(--soft); font-size: .8rem; }
.facts dd { margin: 0; font-variant-numeric: tabular-nums; }
.legend { display: flex; flex-wrap: wrap; gap: .3rem 1.5rem; margin: 1.25rem 0 0; padding: 0;
  list-style: none; color: var(--soft); }
.legend li { display: flex; align-items: center; gap: .45rem; }
.legend .grid { margin: 0; }
.head { display: flex; flex-wrap: wrap; align-items: baseline; gap: .1rem 1rem; }
.head p { color: var(--soft); font-variant-numeric: tabular-nums; }
.head .cell { margin-left: auto; font-size: .85rem; }
.grid { --size: 12px; display: grid; gap: 2px; margin-top: .8rem;
  grid-template-columns: repeat(auto-fill, var(--size)); }
.grid.few { --size: 22px; gap: 3px; }
.legend .grid { --size: 14px; grid-template-columns: none; grid-auto-flow: column; }
.grid i { width: var(--size); height: var(--size); border-radius: 2px; text-align: center;
  font: bold calc(var(--size) * .8)/var(--size) ui-monospace, monospace; }
.grid:focus-visible { outline: 2px solid var(--focus); outline-offset: 4px; border-radius: 2px; }
.grid i:hover, .grid i.at { outline: 2px solid var(--focus); outline-offset: 0; }
.u0 { background: var(--free); box-shadow: inset 0 0 0 1px var(--rim); }
.u1 { background: var(--u1); } .u2 { background: var(--u2); } .u3 { background: var(--u3); }
.u4 { background: var(--u4); } .u5 { background: var(--u5); } .u6 { background: var(--u6); }
.u7 { background: var(--u7); } .u8 { background: var(--u8); }
.f { background: var(--finding); color: var(--on-finding); }
.x { background: var(--damaged); color: var(--on-damaged); }
.q { background: var(--unreadable); color: var(--on-unreadable); }
.f::before { content: "!"; } .x::before { content: "\D7"; } .q::before { content: "?"; }
.wide { overflow-x: auto; margin-top: .6rem; }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
th { color: var(--soft); font-size: .8rem; font-weight: normal; text-align: left; }
th, td { padding: .25rem .9rem .25rem 0; border-bottom: 1px solid var(--line); }
tbody tr:last-child td { border-bottom: 0; }
.n { text-align: right; white-space: nowrap; }
.bar { width: 9rem; min-width: 5rem; }
.bar b { display: block; min-width: 2px; height: 10px; border-radius: 2px; background: var(--u6); }
.path, code { font: .77em/1.5 ui-monospace, monospace; overflow-wrap: anywhere; }
code { user-select: all; }
.good { margin-top: .5rem; color: var(--soft); }
#tip { position: fixed; z-index: 1; top: 0; left: 0; max-width: 90vw; padding: .3rem .6rem;
  border-radius: 6px; background: var(--text); color: var(--page); font-size: .85rem;
  font-variant-numeric: tabular-nums; pointer-events: none; }
@media print { #tip { display: none; } section { break-inside: avoid; } }
)css";

/* The line about a cell follows the pointer, and in a grid with the focus the arrow keys. */
constexpr const char MAP_SCRIPT[] = R"js(
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
)js";

} // namespace tierctl
