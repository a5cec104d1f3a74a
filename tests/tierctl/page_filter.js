// Runs the script of a map's page without a browser, on as much of a document as it needs, and makes
// choices in the filter of its findings: node page_filter.js PAGE CHOICES. Choices are a JSON array
// of objects such as {"kind":"bad_checksum","words":"inode 3"}. Prints an array of what is shown
// after each: {"shown":"1 of 7 listed","rows":["inode 3"]}.
'use strict';
const page = require('fs').readFileSync(process.argv[2], 'utf8');

function textOf(html) {
  return html.replace(/<[^>]*>/g, '')
      .replace(/&#(\d+);/g, (reference, code) => String.fromCodePoint(code));
}

const FINDING = /<tr data-severity="(.*?)" data-table="(.*?)" data-kind="(.*?)">(.*?)<\/tr>/g;
const rows = Array.from(page.matchAll(FINDING), ([all, severity, table, kind, cells]) => ({
  dataset: {severity, table, kind}, hidden: false, textContent: textOf(cells),
  about: textOf(cells.split('</td>')[1])
}));
const listeners = {};
const filter = {
  hidden: page.includes('<form class="filter" hidden="hidden">'),
  elements: {shown: {value: ''}},
  addEventListener(name, listener) { listeners[name] = listener; }
};
for (const [all, name] of page.matchAll(/<(?:select|input type="search") name="(.*?)"/g)) {
  filter.elements[name] = {value: ''};
}
const lists = {'.filter': filter, 'tr[data-kind]': rows};
const findings = {querySelector: name => lists[name], querySelectorAll: name => lists[name]};
const document = {
  getElementById: id => id === 'findings' ? (rows.length ? findings : null) : {},
  querySelectorAll: () => []
};
if (rows.length && !filter.hidden) {
  throw new Error('the filter is shown without a script');
}
new Function('document', page.split('<script>')[1].split('</script>')[0])(document);
if (rows.length && filter.hidden) {
  throw new Error('the filter is not shown');
}
const shown = JSON.parse(process.argv[3]).map(choice => {
  for (const name of ['severity', 'table', 'kind', 'words']) {
    filter.elements[name].value = choice[name] || '';
  }
  listeners.input();
  return {shown: filter.elements.shown.value,
          rows: rows.filter(row => !row.hidden).map(row => row.about)};
});
console.log(JSON.stringify(shown));
