// SPDX-License-Identifier: Apache-2.0
"use strict";
// What was collected is hostile: it enters the page as text nodes and attribute values alone.
const $ = (id) => document.getElementById(id);
const rows = JSON.parse($("index").textContent).map(
  ([time, end, number, when, category, type, owner, line, folder]) =>
    ({ time, end: Math.max(time, end), number, when, category, type, owner, line, folder }));
const isEvent = (row) => row.category === "CRASH" || row.category === "CUSTOM";
const events = rows.filter(isEvent);
let shown = rows;
const markOf = new Map();

function make(name, attributes, ...children) {
  const made = document.createElementNS(attributes.xmlns || "http://www.w3.org/1999/xhtml", name);
  for (const key in attributes) if (key !== "xmlns") made.setAttribute(key, attributes[key]);
  made.append(...children);
  return made;
}
const draw = (name, attributes, ...children) =>
  $("axis").appendChild(make(name, { xmlns: "http://www.w3.org/2000/svg", ...attributes }, ...children));
const titled = (mark, text) => mark.append(make("title", { xmlns: "http://www.w3.org/2000/svg" }, text));

function tally(key) {
  const counts = new Map();
  for (const event of events) counts.set(event[key], (counts.get(event[key]) || 0) + 1);
  return [...counts].sort((a, b) => b[1] - a[1]);
}

// The platform's types keep their colours, the apps' most frequent ones get the next, the rest one.
const types = [...new Set(["TOMBSTONE", "JAVACRASH", "ANR", "UIWDT", ...tally("type").map(([type]) => type)])];
const colour = (type) => Math.min(types.indexOf(type), 7);
const lanes = [...new Set(events.map((event) => colour(event.type)))].sort();

function drawAxis() {
  const left = 92, lane = 28, pitch = 7, width = $("axis").clientWidth - left - 60, bottom = lanes.length * lane + 22;
  const timed = shown.filter((row) => row.time);
  const first = timed.reduce((least, row) => Math.min(least, row.time), Infinity);
  const span = Math.max(1000, timed.reduce((most, row) => Math.max(most, row.end), 0) - first);
  const place = (time) => left + (time - first) / span * width;
  $("axis").replaceChildren();
  $("axis").setAttribute("height", bottom + 36);

  const minutes = [1 / 60, 1 / 4, 1, 5, 15, 60, 180, 360, 720, 1440, 2880, 10080, 43200, 129600, 525600, 5256000];
  const step = 60e3 * minutes.find((some) => some * 60e3 / span * width > 84);
  const format = step < 60e3 ? [11, 19] : step < 864e5 ? [5, 16] : [0, 10];
  for (let time = Math.ceil(first / step) * step; timed[0] && time <= first + span; time += step) {
    draw("line", { class: "tick", x1: place(time), x2: place(time), y1: 0, y2: bottom });
    draw("text", { class: "date", x: place(time), y: bottom + 15 }, new Date(time).toISOString().slice(...format).replace("T", " "));
  }
  // Events of a lane that fall into the same few pixels are one mark, the higher the more they are.
  const marks = new Map();
  markOf.clear();
  for (const row of timed) {
    const x = place(row.time), column = Math.floor((x - left) / pitch), key = colour(row.type) + " " + column;
    if (row.category === "CAPTURE")
      titled(draw("rect", { class: "capture", x, y: bottom - 15, height: 10, rx: 3, width: Math.max(2, place(row.end) - x - 1) }),
        `${row.folder}: ${row.when} ${row.line}`);
    else if (row.category === "REBOOT")
      titled(draw("line", { class: "reboot", x1: x, x2: x, y1: 0, y2: bottom }), `${row.when} reboot ${row.type}`);
    else if (isEvent(row)) marks.has(key) ? marks.get(key).push(row) : marks.set(key, [row]);
  }
  for (const [event, ...more] of marks.values()) {
    const height = Math.min(24, 9 + 3 * Math.log2(more.length + 1)), top = (lanes.indexOf(colour(event.type)) + 1) * lane - height;
    const x = left + Math.floor((place(event.time) - left) / pitch) * pitch;
    const text = `${event.when} ${event.type} ${event.owner}` + (more[0] ? ` and ${more.length} more` : "");
    const mark = draw("a", { href: "#" + event.number, "aria-label": text },
      draw("rect", { class: "mark c" + colour(event.type), x, y: top, width: pitch - 2, height, rx: 2 }));
    titled(mark, text);
    for (const one of [event, ...more]) markOf.set(one.number, mark);
  }
  lanes.forEach((type, i) => draw("text", { x: 0, y: (i + 1) * lane - 5 }, type < 7 ? types[type] : "others"));
  draw("text", { x: 0, y: bottom - 6 }, "captures");
}

function drawCounts() {
  for (const [key, title] of [["type", "By type"], ["owner", "By package"]]) {
    const counts = tally(key).slice(0, 8);
    $("counts").append(make("div", {}, make("h2", {}, title), ...counts.map(([name, count]) => {
      const button = make("button", { class: key === "type" ? "c" + colour(name) : "" }, make("span", {}, name || "unknown"),
        make("b", { style: `width:${count / counts[0][1] * 100}%` }), make("i", {}, count));
      button.onclick = () => filter($("filter").value === name ? "" : name);
      return button;
    })));
  }
}

function filter(text) {
  $("filter").value = text;
  shown = rows.filter((row) => Object.values(row).join(" ").toLowerCase().includes(text.toLowerCase()));
  $("list").replaceChildren(...shown.map((row) => make("a", row.number === "-" ? {} : { href: "#" + row.number },
    make("span", { class: "when" }, row.when),
    make("span", { class: isEvent(row) ? "type c" + colour(row.type) : "type" }, isEvent(row) ? row.type : row.category),
    make("span", { class: "owner" }, isEvent(row) ? row.owner : row.type),
    make("span", { class: "line" }, row.line), make("span", { class: "folder" }, row.folder))));
  drawAxis();
  showEvent();
}

function showEvent() {
  const number = location.hash.slice(1), details = $("d" + number);
  const row = details && rows.find((one) => one.number === number);
  document.querySelectorAll("[aria-current]").forEach((one) => one.removeAttribute("aria-current"));
  $("event").hidden = !row;
  if (!row) return;
  const parts = JSON.parse(details.textContent).split(/^== (.*)\n/m).slice(1);
  $("event").replaceChildren(make("a", { href: "#", "aria-label": "Close" }, "\u00d7"),
    make("h2", {}, `${number} ${row.type || row.category}`), make("p", {}, `${row.when} ${row.owner}`),
    make("p", {}, row.line), make("p", {}, row.folder),
    ...parts.map((text, i) => i % 2 === 0 ? make("h3", {}, text) : make("pre", {}, ...text.split(/^/m).map((line) =>
      make("span", { class: (/^[AK] .{18} +\d+ +\d+ ([EFW])/.exec(line) || [])[1] || "" }, line)))));
  $("event").scrollTop = 0;
  const link = $("list").querySelector(`[href="#${number}"]`);
  for (const one of [link, markOf.get(number)]) one?.setAttribute("aria-current", "true");
  if (link) $("list").scrollTop = link.offsetTop - $("list").clientHeight / 8;
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
filter("");
addEventListener("DOMContentLoaded", showEvent); // the events' details stand behind this script
