// SPDX-License-Identifier: Apache-2.0

// look_browser.js PAGE PROFILE: drives a headless browser through its debugging pipe with real keys
// and clicks, and prints what is wrong with the page by its accessibility tree, layout and print.
"use strict";
const { execFileSync, spawn } = require("child_process");
const { writeFileSync } = require("fs");
const [page, profile] = process.argv.slice(2);
const wrong = [];
process.exitCode = 1; // also of a browser that ends early
const check = (is, what) => is || wrong.push(what);

const browser = spawn("chromium", ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
  "--disable-background-networking", "--disable-component-update", "--force-renderer-accessibility", "--remote-debugging-pipe",
  `--user-data-dir=${profile}`, "about:blank"], { stdio: ["ignore", "ignore", "ignore", "pipe", "pipe"] });
const answers = new Map();
let received = "", session;
browser.stdio[4].setEncoding("utf8").on("data", (text) => {
  const messages = (received + text).split("\0");
  received = messages.pop();
  for (const { id, method, params, result, error } of messages.map((message) => JSON.parse(message))) {
    if (error) throw new Error(JSON.stringify(error));
    answers.get(id)?.(result);
    check(!/consoleAPICalled|exceptionThrown|entryAdded/.test(method), `console: ${JSON.stringify(params)}`);
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
// Looks again for at most 20 s.
const becomes = async (what, expression) => check(await value(`(async () => {
  for (let i = 0; i < 1000; ++i) if (${expression}) return true; else await new Promise((done) => setTimeout(done, 20));
})()`), what);
const settle = () => value("new Promise((done) => setTimeout(done))");
async function press(key) {
  const code = { Tab: 9, Enter: 13, Escape: 27, PageDown: 34, Home: 36, ArrowLeft: 37, ArrowRight: 39, ArrowDown: 40 }[key];
  for (const type of ["rawKeyDown", "keyUp"]) await send("Input.dispatchKeyEvent", { type, key, code: key, windowsVirtualKeyCode: code });
  await settle();
}
async function click(element) {
  const [x, y] = await value(`(() => { const one = ${element}; one.scrollIntoView({ block: "center", behavior: "instant" });
    const box = one.getBoundingClientRect(); return [box.left + box.width / 2, box.top + box.height / 2]; })()`);
  for (const type of ["mousePressed", "mouseReleased"])
    await send("Input.dispatchMouseEvent", { type, x, y, button: "left", clickCount: 1 });
  await settle();
}
const type = (text) => value(`$("filter").value = ${JSON.stringify(text)}; $("filter").dispatchEvent(new Event("input"))`);

async function tree() {
  const { nodes } = await send("Accessibility.getFullAXTree");
  return nodes.filter(({ ignored }) => !ignored).map(({ role, name, properties = [] }) => ({ role: role.value, name: name?.value || "",
    isFocused: properties.some((one) => one.name === "focused" && one.value.value) }));
}
const focused = async () => (await tree()).find(({ isFocused, role }) => isFocused && role !== "RootWebArea") || {};
const worked = async () => (await send("Performance.getMetrics")).metrics.find(({ name }) => name === "ProcessTime").value;

async function checkTree(rows) {
  const nodes = await tree(), made = nodes.filter(({ role }) => role === "row").length;
  for (const [role, name] of [["slider", /^Events over time$/], ["table", /^Issues$/], ["table", /^Events$/], ["status", /^$/],
    ["columnheader", /^Over time$/], ["columnheader", /^Folder$/], ["link", /^\d{4}-.* ANR /]])
    check(nodes.some((node) => node.role === role && name.test(node.name)), `no ${role} ${name}`);
  check(nodes.every(({ role, name }) => !["link", "button", "slider", "searchbox"].includes(role) || name), "something has no name");
  check(made > 4 && made <= Math.min(rows.length, 300) + 60, `${made} rows are made`);
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
  const before = await value(`$("slider").ariaValueText`);
  await press("ArrowRight");
  check(await value(`$("slider").ariaValueText`) !== before, `the slider stays at ${before}`);
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
    const left = rows.filter((row) => !row.gone && text.toLowerCase().split(" ").every((one) => {
      const [, field, whole] = /^(type|package):(.*)$/.exec(one) || [];
      return field ? row[field]?.toLowerCase() === whole : Object.values(row).join(" ").toLowerCase().includes(one);
    }));
    await type(text);
    const events = left.filter(({ category, twin }) => /CRASH|CUSTOM/.test(category) && !twin).length;
    const said = await value(`$("summary").textContent`), listed = await value(`$("list").getAttribute("aria-rowcount") - 1`);
    check(Number(said.split(" ")[0].replace(",", "")) === events, `"${text}" leaves ${events}, the summary says ${said}`);
    check(listed === left.length, `"${text}" leaves ${left.length} rows and lists ${listed}`);
  }
  await type(" ");
  await click(`document.querySelector("#table button")`);
  const [id, count] = await value(`[...document.querySelectorAll("#table [aria-rowindex='2'] > *")].map((cell) => cell.textContent)`);
  const said = await value(`$("summary").textContent`);
  check(said.startsWith(`${count} of `), `issue ${id} has ${count} events, and leaves ${said}`);
  await click(`document.querySelector("#table button")`);
  const hidden = rows.filter(({ gone }) => gone).length;
  check(await value(`$("gone").textContent`) === `show ${hidden.toLocaleString("en")} gone`, "the button does not count the gone events");
  await click(`$("gone")`);
  check(await value(`$("list").getAttribute('aria-rowcount')`) === String(rows.length + 1), "gone events stay hidden");
  await value(`$("list").scrollTop = $("list").scrollHeight`);
  await becomes("the last row is not made", `$("list").querySelector("[aria-rowindex='${rows.length + 1}']")`);
  await becomes("rows that are scrolled away stay", `${rows.length < 200} || !$("list").querySelector("[aria-rowindex='2']")`);
  await click(`$("gone")`);
}

async function checkScreens(rows) {
  await send("Emulation.setDeviceMetricsOverride", { width: 390, height: 844, deviceScaleFactor: 1, mobile: true });
  await becomes("a phone's axis shows no date", `[...document.querySelectorAll("#axis span")].some((span) =>
    /^\\d{4}-\\d\\d-\\d\\d/.test(span.textContent) && span.getBoundingClientRect().right < 380)`);
  check(await value("document.documentElement.scrollWidth") <= 390, "the page is wider than a phone");
  await value(`location.hash = ${rows.findLastIndex(({ issue }) => issue)}`);
  await becomes("no event opens on a phone", `!$("event").hidden`);
  const { data } = await send("Page.printToPDF", { paperWidth: 8.27, paperHeight: 11.69 });
  writeFileSync(`${profile}/print.pdf`, data, "base64");
  const dense = (text) => text.replace(/\s+/g, "");
  const printed = dense(execFileSync("pdftotext", ["-layout", `${profile}/print.pdf`, "-"], { encoding: "utf8" }));
  check(printed.match(/captures/g)?.length > 1, "the axis is not printed");
  const ends = `[...$("event").querySelectorAll("h2, h3, pre")].map((one) => one.textContent.trim().split("\\n").at(-1))`;
  for (const text of ["By type", ...await value(ends)]) check(printed.includes(dense(text)), `not printed: ${text}`);
}

async function run() {
  const { targetInfos } = await send("Target.getTargets");
  const { targetId } = targetInfos.find((one) => one.type === "page");
  ({ sessionId: session } = await send("Target.attachToTarget", { targetId, flatten: true }));
  for (const domain of ["Page", "Runtime", "Log", "Performance", "Accessibility"]) await send(`${domain}.enable`);
  await send("Emulation.setDeviceMetricsOverride", { width: 1280, height: 480, deviceScaleFactor: 1, mobile: false });
  await send("Page.navigate", { url: `file://${page}` });
  await becomes("it does not open", `document.readyState === "complete" && document.querySelector("#list a")`);
  await tree();
  const opening = await worked();
  const rows = await value(`globalThis.$ = (id) => document.getElementById(id), JSON.parse($("rows").textContent).rows`);
  await checkTree(rows);
  await checkKeys();
  await checkEvents(rows);
  await checkFilter(rows);
  const before = await worked();
  await value(`location.hash = ${rows.findIndex(({ issue }) => issue)}`);
  await becomes("no event opens", `!$("event").hidden`);
  await tree();
  const event = await worked() - before;
  check(opening < 6 && event < 3, "that is too much");
  await checkScreens(rows);
  check(await value("document.title") === "Collected logs", "a script of a crash file has run");
  console.log(`${rows.length} rows, processor time to the whole accessibility tree: page ${opening.toFixed(2)} s, event ${event.toFixed(2)} s`);
}

run().catch((error) => wrong.push(error.message)).finally(() => {
  browser.kill();
  console.log(`wrong: ${wrong.join("; ") || "nothing"}`);
  process.exitCode = wrong.length ? 1 : 0;
});
