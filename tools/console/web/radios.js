// A card for each radio, with a chart of the frames of the last hour.

import { post } from "./box.js";
import { byId, make, outcome, setText, visible } from "./dom.js";
import { ask } from "./actions.js";
import { summary } from "./live.js";
import { ago, phrase, text, word } from "./texts.js";

const minutes = 60;
const cards = new Map(); // by the radio's id
let counted = 0; // the number of the newest frame that the charts show
let ahead = 0; // ms that the gateway's clock is ahead of the phone's

const stateNames = ["searching", "identified", "stopped"];
const levels = ["warning", "good", "error"];

function stateOf(radio, running) {
  if (!radio.enabled) return ["idle", text("outOfService")];
  if (!running) return ["idle", text("unknown")];
  if (radio.listenOnly && radio.status !== 2) return ["good", text("listenOnly")];
  return [levels[radio.status] ?? "warning", word("states", stateNames[radio.status] ?? "searching")];
}

/** The chart library is large and may come after everything else. */
const chartLibrary = new Promise(resolve => {
  const script = make("script", { src: "/chart.js", onload: () => resolve(window.Chart), onerror: () => resolve(null) });
  document.head.append(script);
});

const colour = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

async function addChart(card) {
  const Chart = await chartLibrary;
  if (!Chart) return;
  card.chart = new Chart(card.canvas, {
    type: "bar",
    data: { labels: card.counts.map((_, i) => i - minutes + 1), datasets: [{ data: card.counts, backgroundColor: colour("--good"), barPercentage: 1, categoryPercentage: 0.85 }] },
    options: {
      animation: false, maintainAspectRatio: false, events: [],
      plugins: { legend: { display: false }, tooltip: { enabled: false } },
      scales: {
        x: { grid: { display: false }, ticks: { color: colour("--quiet"), maxRotation: 0, autoSkip: false, font: { size: 10 }, callback: (_, i) => ({ 0: text("minute", { minute: 60 }), 30: text("minute", { minute: 30 }), 59: text("now") })[i] ?? "" } },
        y: { beginAtZero: true, suggestedMax: 4, grid: { color: colour("--line") }, ticks: { color: colour("--quiet"), maxTicksLimit: 3, precision: 0, font: { size: 10 } } },
      },
    },
  });
}

function makeCard(radio) {
  const card = {
    name: make("h3"), state: make("span", { className: "state" }), where: make("p", { className: "quiet" }),
    model: make("p"), ago: make("p", { className: "quiet" }), heard: make("p", { className: "heard" }),
    canvas: make("canvas", { attributes: { role: "img" } }), told: make("p", { className: "outcome", attributes: { role: "status" } }),
    rename: make("button", { type: "button", className: "plain", textContent: text("rename") }),
    service: make("button", { type: "button", className: "plain" }),
    counts: new Array(minutes).fill(0), minute: currentMinute(), heardAt: null, radio,
  };
  card.element = make("article", { className: "card" },
    make("div", { className: "card-head" }, make("div", { className: "grow" }, card.name, card.where), card.state),
    card.model, make("div", { className: "last" }, card.ago, card.heard),
    make("div", { className: "chart" }, card.canvas),
    card.buttons = make("div", { className: "buttons" }, card.rename, card.service), card.told);
  card.name.id = `radio-${radio.id}`;
  for (const button of [card.rename, card.service]) button.setAttribute("aria-describedby", card.name.id);
  card.rename.addEventListener("click", () => rename(card));
  card.service.addEventListener("click", () => changeService(card));
  addChart(card);
  return card;
}

const currentMinute = () => Math.floor(Date.now() / 60000);

function shift(card) {
  for (const to = currentMinute(); card.minute < to; ++card.minute) {
    card.counts.shift();
    card.counts.push(0);
    card.changed = true;
  }
}

function setHeard(card, record) {
  if (!record?.time) return;
  card.heardAt = new Date(record.time);
  setText(card.heard, summary(record));
}

function fill(card, radio, activity, state, session) {
  card.radio = radio;
  const name = visible(radio.name || radio.port);
  const [level, stateText] = stateOf(radio, state.stream.joined || state.stream.target === "");
  card.element.dataset.level = level;
  card.state.dataset.level = level;
  setText(card.state, stateText);
  setText(card.name, name);
  setText(card.where, visible(radio.port));
  const facts = [radio.model, radio.band, radio.esn && text("esn", { esn: radio.esn })];
  setText(card.model, visible(facts.filter(Boolean).join(" · ")));
  card.buttons.hidden = !session.open;
  setText(card.service, text(radio.enabled ? "takeOut" : "takeIn"));
  if (!activity) return;
  setHeard(card, activity.lastHeard);
  card.counts.splice(0, minutes, ...activity.perMinute);
  card.minute = currentMinute();
  card.changed = true;
}

export function showRadios(state, session) {
  ahead = new Date(state.now) - Date.now();
  counted = state.sequence;
  const shown = state.radios.map(radio => {
    if (!cards.has(radio.id)) cards.set(radio.id, makeCard(radio));
    const card = cards.get(radio.id);
    fill(card, radio, state.activity.find(row => row.port === radio.port), state, session);
    return card;
  });
  for (const [id, card] of cards) {
    if (shown.includes(card)) continue;
    card.chart?.destroy();
    cards.delete(id);
  }
  const elements = shown.map(card => card.element);
  const list = byId("radios");
  if (elements.length === 0) list.replaceChildren(make("p", { className: "quiet", textContent: text("noRadio") }));
  else if (elements.some((element, i) => list.children[i] !== element) || list.children.length !== elements.length)
    list.replaceChildren(...elements);
  tick();
}

/** A frame that came since the state was told. */
export function countFrame(record, number) {
  if (number <= counted) return;
  counted = number;
  const card = [...cards.values()].find(candidate => candidate.radio.port === record.port);
  if (!card) return;
  shift(card);
  card.counts[minutes - 1] += 1;
  card.changed = true;
  setHeard(card, record);
}

function tick() {
  for (const card of cards.values()) {
    shift(card);
    setText(card.ago, card.heardAt ? text("lastHeard", { ago: ago((Date.now() + ahead - card.heardAt) / 1000) }) : text("neverHeard"));
    const label = text("chart", {
      total: card.counts.reduce((sum, count) => sum + count, 0), most: Math.max(...card.counts),
    });
    if (card.canvas.getAttribute("aria-label") !== label) card.canvas.setAttribute("aria-label", label);
    if (card.changed) card.chart?.update("none");
    card.changed = false;
  }
}

async function change(card, body, withRestart) {
  const done = withRestart ? "changedAndRestart" : body.enabled ? "takenIn" : "changed";
  try {
    await post(`/api/radio/${card.radio.id}`, body);
    if (withRestart) await post("/api/restart");
    outcome(card.told, "good", text(done));
  } catch (error) {
    outcome(card.told, "error", phrase(error.message));
  }
}

async function rename(card) {
  const answer = await ask({
    title: text("renameOf", { name: visible(card.radio.name || card.radio.port) }), text: text("renameWhat"),
    field: text("newName"), value: card.radio.name, button: text("rename"), restart: true,
  });
  if (answer) change(card, { name: answer.value }, answer.restart);
}

async function changeService(card) {
  const enabled = !card.radio.enabled;
  const name = visible(card.radio.name || card.radio.port);
  const answer = await ask({
    title: text(enabled ? "takeInOf" : "takeOutOf", { name }), text: text(enabled ? "takeInWhat" : "takeOutWhat"),
    button: text(enabled ? "takeIn" : "takeOut"), restart: true,
  });
  if (answer) change(card, { enabled }, answer.restart);
}

setInterval(tick, 1000);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
  for (const card of cards.values()) {
    card.chart?.destroy(); // a chart keeps the colours that it was made with
    addChart(card);
  }
});
