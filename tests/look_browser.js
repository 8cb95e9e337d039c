// SPDX-License-Identifier: Apache-2.0

// look_browser.js PAGE PROFILE: drives a headless browser through its debugging pipe with real keys
// and clicks, and prints what is wrong with the page by its accessibility tree, layout and print.
"use strict";
const { execFileSync, spawn } = require("child_process");
const { writeFileSync } = require("fs");
const [page, profile] = process.argv.slice(2);
const wrong = [];
const check = (is, what) => is || wrong.push(what);

const browser = spawn("chromium", ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
  "--disable-background-networking", "--disable-component-update", "--force-renderer-accessibility", "--remote-debugging-pipe",
  `--user-data-dir=${profile}`, "about:blank"], { stdio: ["ignore", "ignore", "ignore", "pipe", "pipe"] });
const answers = new Map();
let received = "", session;
browser.stdio[4].on("data", (bytes) => {
  const messages = (received + bytes).split("\0");
  received = messages.pop();
  for (const { id, method, params, result, error } of messages.map((text) => JSON.parse(text))) {
    if (error) throw new Error(JSON.stringify(error));
    answers.get(id)?.(result);
    check(!["Runtime.consoleAPICalled", "Runtime.exceptionThrown", "Log.entryAdded"].includes(method), `console: ${JSON.stringify(params)}`);
  }
});
function send(method, params) {
  const id = answers.size + 1;
  browser.stdio[3].write(JSON.stringify({ id, method, params, sessionId: session }) + "\0");
  return new Promise((done) => answers.set(id, done));
}

async function value(expression) {
  const { result, exceptionDetails } = await send("Runtime.evaluate", { expression, returnByValue: true, awaitPromise: true });
  if (exceptionDetails) throw new Error(`${expression}: ${exceptionDetails.exception.description}`);
  return result.value;
}
// Checks again with each frame, for at most 20 s.
const becomes = async (what, expression) => check(await value(`new Promise((done) => {
  const begin = performance.now(), look = () => (${expression}) ? done(true) : performance.now() - begin > 20000 ? done(false) : setTimeout(look, 20);
  look();
})`), what);
const codes = { Tab: 9, Enter: 13, Escape: 27, PageDown: 34, End: 35, Home: 36, ArrowLeft: 37, ArrowRight: 39, ArrowDown: 40 };
async function press(key) {
  for (const type of ["rawKeyDown", "keyUp"]) await send("Input.dispatchKeyEvent", { type, key, code: key, windowsVirtualKeyCode: codes[key] });
  await value("new Promise((done) => setTimeout(done))");
}
async function click(element) {
  const [x, y] = await value(`(() => { const one = ${element}; one.scrollIntoView({ block: "center", behavior: "instant" });
    const box = one.getBoundingClientRect(); return [box.left + box.width / 2, box.top + box.height / 2]; })()`);
  for (const type of ["mousePressed", "mouseReleased"]) await send("Input.dispatchMouseEvent", { type, x, y, button: "left", clickCount: 1 });
  await value("new Promise((done) => setTimeout(done))");
}
const type = (text) => value(`$("filter").value = ${JSON.stringify(text)}; $("filter").dispatchEvent(new Event("input"))`);

async function tree() {
  const { nodes } = await send("Accessibility.getFullAXTree");
  return nodes.filter(({ ignored }) => !ignored).map(({ role, name, value, properties = [] }) => ({ role: role.value, name: name?.value || "",
    value: value?.value, ...Object.fromEntries(properties.map((one) => [one.name, one.value.value])) }));
}
const focused = async () => (await tree()).find((node) => node.focused && node.role !== "RootWebArea") || {};
const worked = async () => (await send("Performance.getMetrics")).metrics.find(({ name }) => name === "TaskDuration").value;
const listed = `[...document.querySelectorAll("#list [role=cell]:first-child")].map((cell) => cell.textContent)`;

async function checkTree(rows) {
  const nodes = await tree(), count = (role) => nodes.filter((node) => node.role === role).length;
  check(count("slider") === 1 && nodes.find(({ role }) => role === "slider").name === "Events over time", "the axis is no slider");
  for (const name of ["Issues", "Events"]) check(nodes.some((node) => node.role === "table" && node.name === name), `no table ${name}`);
  for (const name of ["Over time", "Package", "Folder"]) check(nodes.some((node) => node.role === "columnheader" && node.name === name), `no column ${name}`);
  check(nodes.some(({ role, name }) => role === "link" && /^\d.* (CRASH|ANR|[A-Z]\w+)/.test(name)), "the list's links have no names");
  check(nodes.every(({ role, name }) => !["link", "button", "slider", "searchbox"].includes(role) || name), "something has no name");
  check(count("row") > 4 && count("row") <= Math.min(rows.length, 300) + 60, `${count("row")} rows are made`);
}

async function checkKeys() {
  const stops = [];
  for (let i = 0; i < 6 && stops.at(-1) !== "button"; ++i) {
    await press("Tab");
    const { role, name } = await focused();
    if (name === "Events over time" || stops.length) stops.push(role);
  }
  check(stops.join() === "slider,button", `the stops from the axis on are ${stops}`);
  await value(`$("slider").focus()`);
  await press("Home");
  const first = (await focused()).value, before = await value(`$("slider").ariaValueText`);
  await press("ArrowRight");
  check(await value(`$("slider").ariaValueText`) !== before, `the slider stays at ${first}`);
  await press("Enter");
  const opened = await focused();
  check(opened.role === "article" && opened.name.length > 6, `the focus is on ${JSON.stringify(opened)}`);
  await press("ArrowDown");
  await becomes("↓ does not scroll the event", "document.activeElement.scrollTop > 0");
  const line = await value("document.activeElement.scrollTop");
  await press("PageDown");
  await becomes("PageDown does not scroll the event", `document.activeElement.scrollTop > ${line} + 100`);
  await press("ArrowRight");
  check((await focused()).name !== opened.name, "→ opens no other event");
  await press("ArrowLeft");
  check((await focused()).name === opened.name, "← does not go back");
  await press("Escape");
  check((await focused()).role === "slider", "Esc does not go back to the axis");
}

async function checkEvents(rows) {
  const hostile = rows.findIndex(({ line }) => line?.includes("</script>"));
  await value(`location.hash = ${hostile}`);
  await becomes("the hostile line is no text", `["</script><script>", "<b>x</b>"].every((text) => $("event").innerText.includes(text))`);
  const tombstone = `[...document.querySelectorAll("#axis i")].find((mark) => mark.title.includes("TOMBSTONE"))`;
  await click(tombstone);
  await becomes("a click on a mark opens no event", `$("event").querySelector("h2").textContent.includes("TOMBSTONE")`);
  await click(`$("event").querySelector("nav a:last-child")`);
  await becomes("a jump link does not go to its part", `document.activeElement === $("event").querySelector("h3:last-of-type")`);
  await press("Escape");
  check(await value(`$("event").hidden`), "Esc does not close the event");
}

// Rows that the filter leaves, told by what each row holds.
async function checkFilter(rows) {
  const word = (row) => row.stack?.split(/\s+/).find((one) => !JSON.stringify({ ...row, stack: "" }).includes(one));
  const some = rows.findLast((row) => word(row) && row.package && !row.gone);
  for (const text of ["in no row", "freeze", `${some.build || some.time} ${word(some)}`, `type:${some.type} package:${some.package}`]) {
    const left = rows.filter((row) => !row.gone && text.toLowerCase().split(" ").every((word) => {
      const [, field, whole] = /^(type|package):(.*)$/.exec(word) || [];
      return field ? row[field]?.toLowerCase() === whole : Object.values(row).join(" ").toLowerCase().includes(word);
    }));
    await type(text);
    const events = left.filter(({ category, twin }) => ["CRASH", "CUSTOM"].includes(category) && !twin).length;
    const said = await value(`$("summary").textContent`);
    check(Number(said.split(" ")[0].replace(",", "")) === events, `"${text}" leaves ${events}, the summary says ${said}`);
    check(await value(`$("list").getAttribute("aria-rowcount")`) === String(left.length + 1), `"${text}" lists others`);
  }
  await type(" ");
  await click(`document.querySelector("#table button")`);
  const [id, count] = await value(`[...document.querySelectorAll("#table [aria-rowindex='2'] [role=cell]")].map((cell) => cell.textContent)`);
  check((await value(`$("summary").textContent`)).startsWith(`${count} of `), `issue ${id} has ${count} events, and leaves ${await value(`$("summary").textContent`)}`);
  await click(`document.querySelector("#table button")`);
  const hidden = rows.filter(({ gone }) => gone).length;
  check(await value(`$("gone").textContent`) === `show ${hidden.toLocaleString("en")} gone`, "the button does not count the gone events");
  await click(`$("gone")`);
  check(await value(`$("list").getAttribute('aria-rowcount')`) === String(rows.length + 1), "gone events stay hidden");
  await value(`$("list").scrollTop = $("list").scrollHeight`);
  await becomes("the last row is not made", `${listed}.at(-1) === ${JSON.stringify(rows[0].time || "-")}`);
  await becomes("rows that are scrolled away stay", `${rows.length < 200} || !$("list").querySelector("[aria-rowindex='2']")`);
  await click(`$("gone")`);
}

async function checkScreens(rows) {
  await send("Emulation.setDeviceMetricsOverride", { width: 390, height: 844, deviceScaleFactor: 1, mobile: true });
  await becomes("a phone's axis shows no date", `[...document.querySelectorAll("#axis span")].some((span) => /^\\d{4}-\\d\\d-\\d\\d/.test(span.textContent) &&
    span.getBoundingClientRect().left >= $("axis").getBoundingClientRect().left && span.getBoundingClientRect().right <= $("axis").getBoundingClientRect().right)`);
  check(await value("document.documentElement.scrollWidth") <= 390, "the page is wider than a phone");
  await value(`location.hash = ${rows.findLastIndex(({ issue }) => issue)}`);
  await becomes("no event opens on a phone", `!$("event").hidden`);
  const { data } = await send("Page.printToPDF", { paperWidth: 8.27, paperHeight: 11.69 });
  writeFileSync(`${profile}/print.pdf`, data, "base64");
  const words = (text) => text.replace(/\s+/g, "");
  const printed = words(execFileSync("pdftotext", ["-layout", `${profile}/print.pdf`, "-"], { encoding: "utf8" }));
  check(printed.match(/captures/g)?.length > 1, "the axis is not printed");
  for (const text of ["By type", ...await value(`[...$("event").querySelectorAll("h2, h3, pre")].map((one) => one.textContent.trim().split("\\n").at(-1))`)])
    check(printed.includes(words(text)), `not printed: ${text}`);
}

async function run() {
  const { targetInfos } = await send("Target.getTargets");
  ({ sessionId: session } = await send("Target.attachToTarget", { targetId: targetInfos.find(({ type }) => type === "page").targetId, flatten: true }));
  for (const domain of ["Page", "Runtime", "Log", "Performance", "Accessibility"]) await send(`${domain}.enable`);
  await send("Emulation.setDeviceMetricsOverride", { width: 1280, height: 480, deviceScaleFactor: 1, mobile: false });
  await send("Page.navigate", { url: `file://${page}` });
  await becomes("it does not open", `document.readyState === "complete" && document.querySelector("#list a")`);
  await tree();
  const opening = await worked(), rows = await value(`globalThis.$ = (id) => document.getElementById(id), JSON.parse($("rows").textContent).rows`);
  await checkTree(rows);
  await checkKeys();
  await checkEvents(rows);
  await checkFilter(rows);
  const before = await worked();
  await value(`location.hash = ${rows.findIndex(({ issue }) => issue)}`);
  await becomes("no event opens", `!$("event").hidden`);
  await tree();
  const event = await worked() - before;
  check(opening < 6 && event < 3, "that is too long");
  await checkScreens(rows);
  check(await value("document.title") === "Collected logs", "a script of a crash file has run");
  console.log(`${rows.length} rows; work until the accessibility tree is whole: page ${opening.toFixed(2)} s, event ${event.toFixed(2)} s`);
}

run().catch((error) => wrong.push(error.message)).finally(() => {
  browser.kill();
  console.log(`wrong: ${wrong.join("; ") || "nothing"}`);
  process.exitCode = wrong.length ? 1 : 0;
});
