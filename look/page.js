// SPDX-License-Identifier: Apache-2.0
// Builds the page from its rows: time axis, counts, list and the open event.
// What was collected is untrusted: it enters the page only as text nodes and attribute values.
const $ = (id) => document.getElementById(id);
const rows = JSON.parse($("rows").textContent).map(([time, end, ...cells], place) => {
  const [number, when, category, type, owner, line, folder] = cells;
  return { time, end: Math.max(time, end), number, when, category, type, owner, line, folder, place,
    isEvent: category === "CRASH" || category === "CUSTOM", text: cells.join(" ").toLowerCase() };
});
let details;
const events = rows.filter((row) => row.isEvent);
let shown = rows;

function make(name, attributes, ...children) {
  const made = document.createElement(name);
  for (const key in attributes) made.setAttribute(key, attributes[key]);
  made.append(...children);
  return made;
}

function tally(key) {
  const counts = new Map();
  for (const event of events) counts.set(event[key], (counts.get(event[key]) || 0) + 1);
  return [...counts].sort((a, b) => b[1] - a[1]);
}

// The platform's types keep their colours, the apps' most frequent ones get the next, the rest one.
const types = [...new Set(["TOMBSTONE", "JAVACRASH", "ANR", "UIWDT", ...tally("type").map(([type]) => type)])];
const colours = ["#d6336c", "#d9730d", "#a08000", "#7950f2", "#1098ad", "#37a04a", "#2b7fd4", "#808a96"];
const colour = (type) => Math.min(types.indexOf(type), colours.length - 1);
const style = (type) => `--type:${colours[colour(type)]};`;
const lanes = [...new Set(events.map((event) => colour(event.type)))].sort();

function drawAxis() {
  const left = 104, lane = 28, pitch = 7, width = $("axis").clientWidth - left - 60, bottom = lanes.length * lane + 30;
  const timed = shown.filter((row) => row.time);
  const first = timed.reduce((least, row) => Math.min(least, row.time), Infinity);
  const span = Math.max(1000, timed.reduce((most, row) => Math.max(most, row.end), 0) - first);
  const place = (time) => left + (time - first) / span * width;
  const draw = (name, x, y, { style = "", ...attributes }, ...children) => $("axis").appendChild(
    make(name, { style: `${style}left:${x}px;top:${y}px;`, ...attributes }, ...children));
  $("axis").replaceChildren();
  $("axis").style.height = `${bottom + 30}px`;

  const minutes = [1 / 60, 1 / 4, 1, 5, 15, 60, 180, 360, 720, 1440, 2880, 10080, 43200, 129600, 525600, 5256000];
  const step = 60e3 * minutes.find((some) => some * 60e3 / span * width > 84);
  const format = step < 60e3 ? [11, 19] : step < 864e5 ? [5, 16] : [0, 10];
  for (let time = Math.ceil(first / step) * step; timed[0] && time <= first + span; time += step) {
    draw("div", place(time), 0, { class: "tick", style: `height:${bottom}px;` });
    draw("span", place(time), bottom + 4, { class: "date" }, new Date(time).toISOString().slice(...format).replace("T", " "));
  }
  // Events of a lane that fall into the same few pixels are one mark, the higher the more they are.
  const marks = new Map();
  for (const row of timed) {
    const x = place(row.time), key = [colour(row.type), Math.floor((x - left) / pitch)].join();
    if (row.isEvent) marks.set(key, [...marks.get(key) || [], row]);
    else if (row.category === "CAPTURE")
      draw("div", x, bottom - 15, { class: "capture", style: `height:10px;width:${Math.max(2, place(row.end) - x - 1)}px;`,
        title: `${row.folder}: ${row.when} ${row.line}` });
    else if (row.category === "REBOOT")
      draw("div", x, 0, { class: "reboot", style: `height:${bottom}px;`, title: `${row.when} reboot ${row.type}` });
  }
  for (const [key, group] of marks) {
    const [number, column] = key.split(","), event = group[0], height = Math.min(24, 9 + 3 * Math.log2(group.length));
    const title = `${event.when} ${event.type} ${event.owner}` + (group[1] ? ` and ${group.length - 1} more` : "");
    const mark = draw("a", left + column * pitch, (lanes.indexOf(+number) + 1) * lane + 4 - height, { href: "#" + event.number,
      title, "aria-label": title, style: `${style(event.type)}width:${pitch - 2}px;height:${height}px;` });
    for (const one of group) one.mark = mark;
  }
  lanes.forEach((number, i) => draw("span", 12, i * lane + 14, {}, number < colours.length - 1 ? types[number] : "others"));
  draw("span", 12, bottom - 18, {}, "captures");
}

function drawCounts() {
  for (const [key, title] of [["type", "By type"], ["owner", "By package"]]) {
    const counts = tally(key).slice(0, 8);
    $("counts").append(make("div", {}, make("h2", {}, title), ...counts.map(([name, count]) => {
      const button = make("button", { style: key === "type" ? style(name) : "" }, make("span", {}, name || "unknown"),
        make("b", { style: `width:${count / counts[0][1] * 100}%` }), make("i", {}, count));
      button.onclick = () => filter($("filter").value === name ? "" : name);
      return button;
    })));
  }
}

function drawList() {
  const span = (name, text) => make("span", { class: name }, text);
  for (const row of rows) {
    const [type, owner] = row.isEvent ? [row.type, row.owner] : [row.category, row.type];
    row.link = make("a", row.isEvent ? { style: style(type) } : {}, span("when", row.when), span("type", type),
      span("owner", owner), span("line", row.line), span("folder", row.folder));
    if (row.number !== "-") row.link.href = "#" + row.number;
  }
  $("list").append(...rows.map((row) => row.link));
}

function filter(text) {
  $("filter").value = text;
  for (const row of rows) row.link.hidden = !row.text.includes(text.toLowerCase());
  shown = rows.filter((row) => !row.link.hidden);
  drawAxis();
  showEvent();
}

function showEvent() {
  const row = rows.find((one) => "#" + one.number === location.hash);
  document.querySelectorAll("[aria-current]").forEach((one) => one.removeAttribute("aria-current"));
  $("event").hidden = !row;
  if (!row) return;
  details ??= $("details").textContent.split("\n");
  const parts = JSON.parse(details[row.place])[1].split(/^== (.*)\n/m).slice(1);
  $("event").replaceChildren(make("a", { href: "#", "aria-label": "Close" }, "\u00d7"),
    make("h2", {}, `${row.number} ${row.type || row.category}`), make("p", {}, `${row.when} ${row.owner}`),
    make("p", {}, row.line), make("p", {}, row.folder),
    ...parts.map((text, i) => i % 2 === 0 ? make("h3", {}, text) : make("pre", {}, ...text.split(/^/m).map((line) =>
      make("span", { class: (/^[AK] .{18} +\d+ +\d+ ([EFW])/.exec(line) || [])[1] || "" }, line)))));
  $("event").scrollTop = 0;
  for (const one of [row.link, row.mark]) one?.setAttribute("aria-current", "true");
  $("list").scrollTop = row.link.offsetTop - $("list").clientHeight / 8;
}

function go(by) {
  const numbers = shown.filter((row) => row.number !== "-").map((row) => row.number);
  const at = numbers.indexOf(location.hash.slice(1)) + by;
  location.hash = numbers[Math.max(0, Math.min(numbers.length - 1, at))];
}

const keys = { ArrowLeft: () => go(-1), ArrowRight: () => go(1), Escape: () => { location.hash = ""; } };
onkeydown = (event) => { if (event.target !== $("filter") && !event.altKey && !event.ctrlKey && !event.metaKey) keys[event.key]?.(); };
onhashchange = showEvent;
onresize = () => { drawAxis(); showEvent(); };
$("filter").oninput = () => filter($("filter").value);
$("summary").textContent = ["REBOOT", "CAPTURE"].reduce((text, category) =>
  `${text}, ${rows.filter((row) => row.category === category).length} ${category.toLowerCase()}s`, `${events.length} events`);
drawCounts();
drawList();
filter("");
