// SPDX-License-Identifier: Apache-2.0

// Runs at the end of a copy of the page and replaces the page's text with what is wrong with it;
// look_browser defines `expected`.
const wrong = [];
const check = (is, what) => is || wrong.push(what);
const event = document.getElementById("event");
const marks = () => [...document.querySelectorAll("#axis a")];
const label = (mark) => mark.getAttribute("aria-label");
const next = (act) => new Promise((done) => { addEventListener("hashchange", done, { once: true }); act(); });
const press = (key) => next(() => document.body.dispatchEvent(new KeyboardEvent("keydown", { key, bubbles: true })));

function checkMarks() {
  const axis = document.getElementById("axis").getBoundingClientRect();
  const boxes = marks().map((mark) => ({ mark, ...mark.getBoundingClientRect().toJSON(),
    count: 1 + Number(/ and (\d+) more$/.exec(label(mark))?.[1] || 0) }));
  const counted = boxes.reduce((sum, box) => sum + box.count, 0);
  check(counted === expected.events, `the marks stand for ${counted} events`);
  check(boxes.every((box) => box.width > 2 && box.height > 2 && box.left >= axis.left && box.right <= axis.right &&
    box.top >= axis.top && box.bottom <= axis.bottom), "a mark is not to be seen");
  boxes.sort((a, b) => a.count - b.count);
  check(boxes.every((box, i) => !i || box.height >= boxes[i - 1].height) && boxes[0].height < boxes.at(-1).height,
    "crowded marks are not higher");
  boxes.sort((a, b) => a.bottom - b.bottom || a.left - b.left);
  check(boxes.every((box, i) => !i || box.bottom !== boxes[i - 1].bottom || box.left >= boxes[i - 1].right), "marks overlap");
  const others = ["capture", "reboot"].map((kind) => document.querySelectorAll("#axis ." + kind).length);
  check(others.join() === expected.others, `captures and reboots on the axis: ${others}`);
}

async function checkEvents() {
  for (const [begin, number, ...texts] of expected.opened) {
    const box = marks().find((mark) => label(mark).startsWith(begin)).getBoundingClientRect();
    await next(() => document.elementFromPoint(box.left + box.width / 2, box.top + box.height / 2).click());
    check(!event.hidden && location.hash === "#" + number, `a click on ${begin} opens ${location.hash}`);
    for (const text of texts) check(event.innerText.includes(text), `event ${number} lacks: ${text}`);
  }
  for (const [key, heading] of expected.keys) {
    await press(key);
    const opened = event.hidden ? "nothing" : event.querySelector("h2").innerText;
    check(opened === heading, `${key} opens ${opened}`);
  }
  const filter = document.getElementById("filter");
  for (const [text, left] of expected.filters) {
    filter.value = text;
    filter.dispatchEvent(new Event("input"));
    const listed = [...document.querySelectorAll("#list a")].filter((link) => link.offsetHeight > 0);
    check(marks().length === left && listed.length === left, `${text} leaves ${marks().length} marks, ${listed.length} rows`);
  }
  check(document.title === "Collected logs", "a script of a crash file has run");
}

addEventListener("load", async () => {
  document.body.getBoundingClientRect();
  const took = Math.round(performance.now());
  checkMarks();
  if (expected.opened) await checkEvents();
  check(took < expected.milliseconds, `it opens in ${took} ms`);
  document.body.textContent = `${took} ms to open; wrong: ${wrong.join("; ") || "nothing"}`;
});
