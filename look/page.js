// SPDX-License-Identifier: Apache-2.0
// Builds the page from its rows: time axis, issues, counts, list and the open event.
// What was collected is untrusted: it enters the page only as text nodes and attribute values.
const $ = (id) => document.getElementById(id);
const { phones, rows, issues } = JSON.parse($("rows").textContent);
const fields = ["time", "category", "type", "package", "line", "phone", "build", "folder", "damage", "issue", "stack"];
rows.forEach((row, index) => {
  for (const field of fields) row[field] ??= "";
  row.index = index;
  row.isEvent = row.category === "CRASH" || row.category === "CUSTOM";
  row.place = (row.gone ? "gone" : row.folder) + (row.damage && ` [${row.damage}]`);
});
let shown = [], showGone = false, marks = [], chosen = -1, fillList, open, opener, details;

function make(name, attributes, ...children) {
  const made = document.createElement(name);
  for (const key in attributes) made.setAttribute(key, attributes[key]);
  made.append(...children);
  return made;
}

const counted = (count, noun) => `${count.toLocaleString("en")} ${noun}${count === 1 ? "" : "s"}`;
const moment = (time, from = 0, to = 16) => time ? new Date(time).toISOString().slice(from, to).replace("T", " ") : "-";
const owner = (row) => row.isEvent ? [row.type, row.package] : [row.category, row.type];

// A twin is the same crash in a second folder: it is counted with the other one.
function tally(some, field) {
  const counts = new Map();
  for (const row of some) if (row.isEvent && !row.twin) counts.set(row[field], (counts.get(row[field]) || 0) + 1);
  return [...counts].sort((a, b) => b[1] - a[1]);
}

// The platform's types keep their colours, the apps' most frequent ones get the next, the rest one.
const types = [...new Set(["TOMBSTONE", "JAVACRASH", "ANR", "UIWDT", ...tally(rows, "type").map(([type]) => type)])];
const colours = ["#d6336c", "#d9730d", "#a08000", "#7950f2", "#1098ad", "#37a04a", "#2b7fd4", "#808a96"];
const colour = (type) => Math.min(types.indexOf(type), colours.length - 1);
const style = (type) => types.includes(type) ? `--type:${colours[colour(type)]};` : "";

// Without the years of a clock that was not set yet: what has such a time is drawn at the left end.
function range(some) {
  const set = some.filter((row) => row.t >= Date.UTC(2000)), times = set.length ? set : some;
  return times.reduce(([least, most], { t, e = 0 }) => [Math.min(least, t), Math.max(most, t, e)], [Infinity, 0]);
}

function drawAxis(full = $("axis").clientWidth) {
  const left = 104, lane = 28, pitch = 7, width = full - left - 40, timed = shown.filter((row) => row.t).reverse();
  const lanes = [...new Set(timed.filter((row) => row.isEvent).map((row) => colour(row.type)))].sort();
  const bottom = lanes.length * lane + 30, [first, last] = range(timed), span = Math.max(1000, last - first);
  const place = (time) => left + Math.max(0, (time - first) / span * width || 0);
  const draw = (name, x, y, { style = "", ...attributes }, ...children) => $("axis").appendChild(
    make(name, { style: `${style}left:${x}px;top:${y}px;`, ...attributes }, ...children));
  $("axis").replaceChildren();
  $("axis").style.height = `${bottom + 30}px`;

  const minutes = [1 / 60, 1 / 4, 1, 5, 15, 60, 180, 360, 720, 1440, 2880, 10080, 43200, 129600, 525600, 5256000];
  const step = 60e3 * minutes.find((some) => some * 60e3 / span * width > 84);
  const format = step < 60e3 ? [11, 19] : step < 864e5 ? [5, 16] : [0, 10];
  if (timed[0]) draw("span", left, bottom + 4, {}, moment(first, 0, 10));
  for (let time = Math.ceil(first / step) * step; time < first + span; time += step) {
    draw("div", place(time), 0, { class: "tick" });
    if (place(time) > left + 120) draw("span", place(time), bottom + 4, { class: "date" }, moment(time, ...format));
  }
  // Events of a lane that fall into the same few pixels are one mark, the higher the more they are.
  const groups = new Map();
  for (const row of timed) {
    const x = place(row.t), key = Math.floor((x - left) / pitch) * colours.length + colour(row.type);
    if (row.isEvent) groups.has(key) ? groups.get(key).push(row) : groups.set(key, [row]);
    else draw("div", x, 0, { class: row.category, title: [row.time, ...owner(row), row.line, row.folder].join(" "),
      style: row.e ? `width:${place(row.e) - x - 1}px;` : "" });
  }
  marks = [...groups].sort((a, b) => a[0] - b[0]).map(([key, [row, ...more]]) => {
    const x = left + Math.floor(key / colours.length) * pitch, y = (lanes.indexOf(key % colours.length) + 1) * lane + 4;
    const height = Math.min(24, 9 + 3 * Math.log2(1 + more.length));
    const title = [row.time, ...owner(row)].join(" ") + (more[0] ? ` and ${more.length} more` : "");
    const mark = draw("i", x, y - height, { title, style: `${style(row.type)}width:${pitch - 2}px;height:${height}px;` });
    mark.onclick = () => go(row);
    return { mark, title, events: [row, ...more] };
  });
  lanes.forEach((type, i) => draw("span", 12, i * lane + 14, {}, type < colours.length - 1 ? types[type] : "others"));
  draw("span", 12, bottom - 18, {}, "captures");
  choose(open ? markOf(open) : marks.length - 1);
}

const markOf = (row) => marks.findIndex(({ events }) => events.includes(row));

// The axis is one slider whose values are the marks: as links they would be a thousand stops of the Tab key.
function choose(index) {
  marks[chosen]?.mark.removeAttribute("class");
  chosen = index;
  const { mark, title = "no event" } = marks[chosen] || {};
  mark?.setAttribute("class", "chosen");
  Object.assign($("slider"), { max: marks.length - 1, value: chosen, ariaValueText: title });
  $("axis").dataset.title = title;
}

// Rows are made when they are scrolled to: 10,000 at once keep a screen reader's browser busy for half a minute.
function drawTable(box, columns, items, cells) {
  const size = 50, groups = new Map();
  const line = (role, texts, attributes) => make("div", { role: "row", ...attributes },
    ...texts.map((text, i) => make("span", { role, class: columns[i].toLowerCase().replace(" ", "-") }, text)));
  const fill = (group, from) => group.firstChild || group.append(...items.slice(from, from + size).map((item, i) =>
    line("cell", cells(item), { "aria-rowindex": from + i + 2, style: item.isEvent === false ? "" : style(item.type) })));
  for (let from = 0; from < items.length; from += size)
    groups.set(make("div", { role: "rowgroup", style: `--rows:${Math.min(size, items.length - from)}` }), from);
  box.observer?.disconnect();
  box.observer = new IntersectionObserver((changes) => changes.forEach(({ target, isIntersecting }) =>
    isIntersecting ? fill(target, groups.get(target)) : target.matches(":focus-within") || target.replaceChildren()),
  { root: box, rootMargin: "300px" });
  box.setAttribute("aria-rowcount", items.length + 1);
  box.replaceChildren(line("columnheader", columns), ...groups.keys());
  for (const group of groups.keys()) box.observer.observe(group);
  return (place) => fill(...[...groups][Math.floor(place / size)]);
}

function drawList() {
  fillList = drawTable($("list"), ["Time", "Type", "Package", "Line", "Build", "Folder", "Phone"], shown, (row) => {
    const [type, name] = owner(row), time = row.time || "-";
    const attributes = { href: `#${row.index}`, "aria-label": `${time} ${type} ${name}`, "aria-current": row === open };
    row.link = make("a", row.n ? attributes : {}, time);
    return [row.link, type, name, row.line, row.build, row.place, row.phone];
  });
}

// The outline of a small bar: the issue's events over the time of all issues.
const [begin, end] = range(rows.filter((row) => row.t && row.issue));
function outline({ id }) {
  const bins = Array(40).fill(0);
  for (const { t, issue, twin } of rows) if (issue === id && t >= begin && !twin) ++bins[Math.floor((t - begin) / (end - begin + 1) * 40)];
  const steps = bins.flatMap((count, i) => [i, i + 1].map((x) => `${x * 2.5}% ${count ? 85 - count / Math.max(...bins) * 85 : 100}%`));
  return make("b", { style: `clip-path:polygon(0 100%,${steps},100% 100%)` });
}

function drawIssues() {
  const columns = ["Issue", "Count", "Phones", "First", "Last", "First build", "Last build", "Type", "Package", "Line", "Over time"];
  $("issues").hidden = !issues.length;
  drawTable($("table"), columns, issues, (issue) => [make("span", {}, button("issue", issue.id, issue.id), issue.new ? make("strong", {}, " new") : ""),
    issue.count.toLocaleString("en"), issue.phones, moment(issue.first), moment(issue.last),
    ...["first_build", "last_build", "type", "package", "line"].map((field) => issue[field] || "-"), outline(issue)]);
}

function drawCounts() {
  const some = rows.filter((row) => showGone || !row.gone);
  $("counts").replaceChildren(...["type", "package", ...phones.length > 1 ? ["phone"] : []].map((field) => {
    const counts = tally(some, field).slice(0, 6);
    return make("div", {}, make("h2", {}, `By ${field}`), ...counts.map(([name, count]) => {
      const bar = make("b", { style: `${field === "type" ? style(name) : ""}width:${count / counts[0][1] * 100}%` });
      return button(field, name, make("span", {}, name || "unknown"), bar, make("i", {}, count.toLocaleString("en")));
    }));
  }));
}

// Words of the filter: a quoted one may hold blanks, "type:ANR" is all of that field.
const words = () => $("filter").value.toLowerCase().match(/(?:[^\s"]|"[^"]*")+/g) || [];

function button(field, name, ...children) {
  const term = `${field}:${/^[^\s"]+$/.test(name) ? name : `"${name}"`}`.toLowerCase();
  const made = make("button", { "data-term": term, "aria-pressed": words().includes(term) }, ...children);
  made.onclick = () => {
    const others = words().filter((word) => !word.startsWith(`${field}:`));
    $("filter").value = [...others, ...words().includes(term) ? [] : [term]].join(" ");
    filter();
  };
  return made;
}

function matcher(word) {
  const [, field, name] = /^(issue|type|package|phone|build):(.*)$/.exec(word) || [], text = (name ?? word).replaceAll('"', "");
  return field ? (row) => row[field].toLowerCase() === text
    : (row) => (row.text ??= fields.map((one) => row[one]).join(" ").toLowerCase() + (row.gone ? " gone" : "")).includes(text);
}

function filter() {
  const tests = words().map(matcher), found = rows.filter((row) => tests.every((test) => test(row)));
  const hidden = found.filter((row) => row.gone).length;
  shown = found.filter((row) => showGone || !row.gone).reverse();
  $("gone").hidden = !hidden;
  $("gone").textContent = `${showGone ? "hide" : "show"} ${hidden.toLocaleString("en")} gone`;
  const kind = (row) => row.isEvent ? !row.twin && "event" : row.category.toLowerCase();
  $("summary").textContent = ["event", "reboot", "capture"].map((noun) => {
    const [some, all] = [shown, rows].map((list) => list.filter((row) => kind(row) === noun).length);
    return (some < all ? `${some.toLocaleString("en")} of ` : "") + counted(all, noun);
  }).concat(phones.length > 1 ? counted(phones.length, "phone") : []).join(", ");
  for (const one of document.querySelectorAll("[data-term]")) one.setAttribute("aria-pressed", words().includes(one.dataset.term));
  drawAxis();
  drawList();
}

function describe(row) {
  details ??= $("details").textContent.trim().split("\n");
  const parts = JSON.parse(details[row.index]), issue = issues.find(({ id }) => id === row.issue);
  const twins = rows.filter((one) => one.phone === row.phone && one.n && (one.n === row.twin || one.twin === row.n));
  const lines = (text) => text.split(/^/m).map((line) => make(/^E .*\bam_(anr|crash|proc_died)\b/.test(line) ? "mark" : "span",
    { class: /^[AKER] .{18} +\d+ +\d+ ([EFW])/.exec(line)?.[1] || "" }, line));
  return make("article", { id: "event", tabindex: -1, "aria-labelledby": "title" },
    make("a", { href: "#", "aria-label": "Close" }, "\u00d7"), make("h2", { id: "title" },
      [row.n, ...owner(row), phones.length > 1 ? `on ${row.phone}` : ""].join(" ")),
    ...[`${row.time} ${row.build}`, row.line, row.place].map((text) => make("p", {}, text)),
    issue ? make("p", {}, button("issue", issue.id, `Issue ${issue.id}`), ` came ${counted(issue.count, "time")} on ` +
      `${counted(issue.phones, "phone")}, ${moment(issue.first)} to ${moment(issue.last)}${issue.new ? ", new" : ""}`) : "",
    ...twins.map((one) => make("p", {}, "The same crash as ", make("a", { href: `#${one.index}` }, `${one.n} ${one.type}`))),
    make("nav", { "aria-label": "Parts" }, ...parts.map(([title], i) => make("a", { href: `#${row.index}/${i}` }, title.split(",")[0]))),
    ...parts.flatMap(([title, text], i) => [make("h3", { id: `part${i}`, tabindex: -1 }, title), make("pre", {}, ...lines(text))]));
}

// Makes the row in the list and scrolls to it.
function reveal(row) {
  if (!shown.includes(row)) return $("slider");
  fillList(shown.indexOf(row));
  row.link.closest("[role=row]").scrollIntoView({ block: "nearest" });
  return row.link;
}

// An event takes the focus, so that it is announced and the keys scroll it. Closed, it gives the focus back.
function show(row) {
  if (!open) opener = document.activeElement;
  const before = open, event = row ? describe(row) : make("article", { id: "event", hidden: "" });
  open = row;
  $("event").replaceWith(event);
  before?.link?.setAttribute("aria-current", false);
  const link = reveal(row || before);
  row?.link?.setAttribute("aria-current", true);
  row ? choose(markOf(row)) : drawAxis();
  (row ? event : opener === $("slider") ? opener : link).focus();
}

function follow() {
  const [index, part] = location.hash.slice(1).split("/"), row = rows[parseInt(index)];
  if (row !== open) show(row);
  $(`part${part}`)?.scrollIntoView();
  $(`part${part}`)?.focus();
}

const go = (row) => { if (row) location.hash = row.index; };
const keys = { ArrowLeft: () => go(shown.find((row) => row.n && row.index < (open?.index ?? Infinity))),
  ArrowRight: () => go(shown.findLast((row) => row.n && row.index > (open?.index ?? -1))), Escape: () => { location.hash = ""; } };
onkeydown = (event) => {
  if (event.target === $("filter") || event.altKey || event.ctrlKey || event.metaKey) return;
  if (event.target !== $("slider") || event.key === "Escape") keys[event.key]?.();
  else if (event.key === "Enter") go(marks[chosen]?.events[0]);
};
onhashchange = follow;
onresize = () => drawAxis();
onbeforeprint = () => {
  drawAxis(660); // of a page in portrait
  for (let place = 0; !open && place < shown.length; place += 50) fillList(place);
};
onafterprint = filter;
$("slider").oninput = () => choose(Number($("slider").value));
$("filter").oninput = filter;
$("gone").onclick = () => {
  showGone = !showGone;
  drawCounts();
  filter();
};
if (phones.length < 2) document.body.className = "single";
drawIssues();
drawCounts();
filter();
follow();
