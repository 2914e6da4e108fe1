// What may be done: a text for every display, a restart. And the dialog that says beforehand what will happen.

import { post } from "./box.js";
import { byId, outcome, setText, visible } from "./dom.js";
import { phrase, text } from "./texts.js";

const width = 12;
const scrolledBy = 5;
const stepMs = 900;

/** What displays are sent, in their order: the text moves on by five characters until the rest fits. */
function stepsOf(given) {
  const steps = [];
  let rest = given.toUpperCase().replaceAll("DISP,", "").replaceAll('"', "");
  for (; rest.length > width; rest = rest.slice(scrolledBy)) steps.push(rest.slice(0, width));
  return [...steps, rest];
}

let shownStep = 0;

function preview() {
  const given = byId("say-text").value;
  const steps = stepsOf(given);
  setText(byId("steps"), given.trim() === "" ? text("sayEmpty") : steps.length === 1 ? text("sayOnce") : text("saySteps", { count: steps.length }));
  shownStep = 0;
  showStep();
}

function showStep() {
  const steps = [...stepsOf(byId("say-text").value), ""];
  setText(byId("display"), steps[shownStep % steps.length]);
}

setInterval(() => {
  const still = matchMedia("(prefers-reduced-motion: reduce)").matches;
  if (byId("say").hidden || still || byId("say-text").value === "") return;
  shownStep += 1;
  showStep();
}, stepMs);

byId("say-text").addEventListener("input", preview);

byId("say").addEventListener("submit", async event => {
  event.preventDefault();
  const told = event.target.querySelector(".outcome");
  const button = event.target.querySelector("button");
  if (button.disabled) return; // a second tap, or Enter
  button.disabled = true;
  try {
    const answer = await post("/api/say", { text: byId("say-text").value });
    outcome(told, "good", text("saidDone", { text: visible(answer.displayed) }));
    byId("say-text").value = "";
    preview();
  } catch (error) {
    outcome(told, "error", phrase(error.message));
  }
  button.disabled = false;
});

byId("restart").addEventListener("click", async () => {
  const answer = await ask({ title: text("restart"), text: text("restartWhat"), button: text("restart") });
  if (!answer) return;
  const told = byId("restart-outcome");
  try {
    const { queued } = await post("/api/restart");
    outcome(told, "good", text(queued ? "restartDone" : "restartAlready"));
  } catch (error) {
    outcome(told, "error", phrase(error.message));
  }
});

export function showActions(state, session) {
  byId("say").hidden = !session.open;
  byId("restart-part").hidden = !session.open;
  setText(byId("may-not"), session.open ? "" : text("mayNot"));
  byId("may-not").hidden = session.open === true;
  const waiting = state.pending.map(action => visible(action.command));
  setText(byId("pending"), waiting.length === 0 ? "" : text("pending", { actions: waiting.join(text("listComma")) }));
}

byId("dialog-cancel").addEventListener("click", () => byId("dialog").close());

/** Says what will happen and asks; yields null, or the field's value and whether to restart as well. */
export function ask({ title, text: what, button, field = "", value = "", restart = false }) {
  const dialog = byId("dialog");
  const input = byId("dialog-input");
  setText(byId("dialog-title"), title);
  setText(byId("dialog-text"), what);
  setText(byId("dialog-do"), button);
  byId("dialog-field").hidden = !field;
  setText(byId("dialog-field").querySelector("label"), field);
  input.value = value;
  input.required = field !== "";
  input.maxLength = 64;
  byId("dialog-restart").hidden = !restart;
  dialog.returnValue = "";
  dialog.showModal();
  return new Promise(resolve => {
    dialog.addEventListener("close", () => resolve(dialog.returnValue !== "do" ? null
      : { value: input.value, restart: restart && byId("dialog-restart-box").checked }), { once: true });
  });
}

preview();
