// SPDX-License-Identifier: Apache-2.0

// Runs at the end of a copy of the page and leaves what is wrong with it as the page's only text;
// `expected` is made by look_browser.
const wrong = [];
const check = (is, what) => is || wrong.push(what);
const open = () => document.getElementById("event");
const marks = () => [...document.querySelectorAll("#axis a")];
const next = (act) => new Promise((done) => { addEventListener("hashchange", done, { once: true }); act(); });
const press = (key) => next(() => document.body.dispatchEvent(new KeyboardEvent("keydown", { key, bubbles: true })));

function checkMarks() {
  const count = (mark) => 1 + Number((/ and (\d+) more$/.exec(mark.getAttribute("aria-label")) || [0, 0])[1]);
  const counted = marks().reduce((sum, mark) => sum + count(mark), 0);
  check(counted === expected.events, `the marks stand for ${counted} events`);
  const axis = document.getElementById("axis").getBoundingClientRect();
  const boxes = marks().map((mark) => mark.querySelector("rect").getBoundingClientRect());
  check(boxes.every((box) => box.width > 2 && box.height > 2 && box.left >= axis.left && box.right <= axis.right &&
    box.top >= axis.top && box.bottom <= axis.bottom), "a mark is not to be seen");
  boxes.sort((a, b) => a.top + a.height - b.top - b.height || a.left - b.left);
  check(boxes.every((box, i) => !i || box.bottom !== boxes[i - 1].bottom || box.left >= boxes[i - 1].right),
    "marks overlap");
  for (const [kind, number] of [["capture", expected.captures], ["reboot", expected.reboots]]) {
    const found = document.querySelectorAll("#axis ." + kind).length;
    check(found === number, `${found} ${kind}s on the axis`);
  }
}

async function checkEvents() {
  for (const [label, number, ...texts] of expected.opened) {
    const box = marks().find((mark) => mark.getAttribute("aria-label").startsWith(label)).getBoundingClientRect();
    const hit = document.elementFromPoint(box.left + box.width / 2, box.top + box.height / 2);
    await next(() => hit.dispatchEvent(new MouseEvent("click", { bubbles: true, cancelable: true })));
    for (const text of texts) check(open().innerText.includes(text), `event ${number} lacks: ${text}`);
    check(!open().hidden && open().querySelector("h2").innerText.startsWith(number + " "), `a click opened not ${number}`);
  }
  await press("ArrowRight");
  check(open().querySelector("h2").innerText === expected.right, "the right arrow opens " + open().querySelector("h2").innerText);
  await press("ArrowLeft");
  check(location.hash === "#" + expected.opened.at(-1)[1], "the left arrow opens " + location.hash);
  await press("Escape");
  check(open().hidden, "Escape leaves the event open");
  const filter = document.getElementById("filter");
  filter.value = expected.filter;
  filter.dispatchEvent(new Event("input"));
  check(marks().length === 1, `the filter leaves ${marks().length} marks`);
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
