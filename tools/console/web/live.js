// The list of what is heard and sent, newest first, worded as quillonctl watch does.

import { byId, make, setText, visible } from "./dom.js";
import { fieldsOf, kinds, text, timeOfDay, word } from "./texts.js";

const capacity = 1000;
let records = []; // newest first
let arrived = []; // oldest first, not shown yet
let paused = false;
let drawing = false;

const list = byId("records");
const byRadio = byId("filter-radio");
const byKind = byId("filter-kind");
const byText = byId("filter-text");

/** The fields that matter, as "caller 1234, message ...". */
export function summary(record) {
  const named = fieldsOf(record.kind).filter(field => record.fields?.[field] !== undefined && record.fields[field] !== "")
    .map(field => `${word("fields", field)} ${visible(record.fields[field])}`);
  return named.length > 0 ? named.join(text("listComma")) : visible(record.text);
}

function describe(record) {
  return {
    record, name: visible(record.name || record.port), kind: word("kinds", record.kind),
    direction: word("directions", record.record), fields: summary(record), text: visible(record.text),
  };
}

function matches(entry) {
  if (entry.missed) return true;
  if (byRadio.value && entry.record.port !== byRadio.value) return false;
  if (byKind.value && entry.record.kind !== byKind.value) return false;
  const wanted = byText.value.trim().toLocaleLowerCase();
  return !wanted || [entry.name, entry.kind, entry.direction, entry.fields, entry.text].some(part => part.toLocaleLowerCase().includes(wanted));
}

function row(entry) {
  if (entry.missed) return make("li", { className: "missed", textContent: text("missed", { count: entry.missed }) });
  const { record } = entry;
  return make("li", { className: record.record === "command" ? "command" : "frame" },
    make("div", { className: "meta" }, make("time", { dateTime: record.time ?? "", textContent: timeOfDay(record.time) }),
      make("span", { className: "name", textContent: entry.name }), make("span", { className: "direction", textContent: entry.direction }),
      make("span", { textContent: entry.kind })),
    entry.fields !== entry.text ? make("div", { textContent: entry.fields }) : null,
    make("div", { className: "text", textContent: entry.text }));
}

function note() {
  const waiting = paused ? text("pausedNote", { count: arrived.length }) : "";
  const empty = list.childElementCount === 0 ? text(records.length === 0 ? "nothingYet" : "nothingMatches") : "";
  setText(byId("live-note"), [waiting, empty].filter(Boolean).join(" "));
}

/** Rows of entries that are newer than what is shown; the oldest rows go. */
function draw() {
  drawing = false;
  if (!paused && arrived.length > 0) {
    const fresh = arrived.reverse();
    arrived = [];
    records = [...fresh, ...records].slice(0, capacity);
    const atTop = list.scrollTop < 5;
    list.prepend(...fresh.filter(matches).map(row));
    while (list.childElementCount > capacity) list.lastElementChild.remove();
    if (atTop) list.scrollTop = 0;
  }
  note();
}

function redraw() {
  list.replaceChildren(...records.filter(matches).map(row));
  note();
}

function add(entry) {
  arrived.push(entry);
  if (arrived.length > capacity) arrived.shift();
  if (drawing) return;
  drawing = true;
  setTimeout(draw, 100);
}

export const addRecord = record => add(record.record === "lost" ? { missed: record.count } : describe(record));
export const addMissed = count => add({ missed: count });

export function clearRecords() {
  records = [];
  arrived = [];
  redraw();
}

function setOptions(select, options) {
  const current = select.value;
  select.replaceChildren(make("option", { value: "", textContent: text("all") }), ...options.map(([value, label]) => make("option", { value, textContent: label })));
  select.value = options.some(([value]) => value === current) ? current : "";
}

export function showRadioNames(radios) {
  const options = radios.map(radio => [radio.port, visible(radio.name || radio.port)]);
  const key = JSON.stringify(options);
  if (byRadio.dataset.shown === key) return;
  byRadio.dataset.shown = key;
  setOptions(byRadio, options);
}

function showPause() {
  const button = byId("pause");
  button.setAttribute("aria-pressed", String(paused));
  setText(button, text(paused ? "goOn" : "pause"));
}

byId("pause").addEventListener("click", () => {
  paused = !paused;
  showPause();
  draw();
});
byId("filters").addEventListener("submit", event => event.preventDefault());
for (const filter of [byRadio, byKind]) filter.addEventListener("change", redraw);
byText.addEventListener("input", redraw);

setOptions(byKind, kinds.map(kind => [kind, word("kinds", kind)]));
showPause();
