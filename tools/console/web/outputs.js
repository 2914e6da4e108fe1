// Where the frames go: each output's state, and how much waits at those that keep what was not accepted.

import { byId, make, visible } from "./dom.js";
import { ago, phrase, text } from "./texts.js";

function levelOf(output, running) {
  if (!output.enabled || !running) return "idle";
  return { 0: "warning", 3: "good", 4: "error" }[output.status] ?? "warning";
}

/** What waits at an output with an outbox, in a sentence; empty for any other. */
function waiting({ outbox }) {
  if (!outbox) return "";
  if (outbox.problem) return phrase(outbox.problem);
  const parts = [outbox.waiting ? text("waits", { count: outbox.waiting }) : text("nothingWaits")];
  if (outbox.waiting && outbox.oldest !== undefined) parts.push(text("oldest", { ago: ago(outbox.oldest) }));
  if (outbox.dropped) parts.push(text("dropped", { count: outbox.dropped }));
  if (outbox.refused) parts.push(text("refused", { count: outbox.refused }));
  return parts.join(text("listComma"));
}

function row(output, running) {
  const facts = [output.target, output.topic, output.comment].filter(Boolean).map(visible);
  const queue = waiting(output);
  const unknown = output.enabled && !running;
  return make("li", {},
    make("div", { className: "grow" }, make("strong", { textContent: visible(output.kind) }),
      make("p", { className: "quiet", textContent: facts.join(" · ") }),
      queue ? make("p", { textContent: queue }) : null),
    make("span", { className: "state", dataset: { level: levelOf(output, running) }, textContent: unknown ? text("unknown") : phrase(output.state) }));
}

export function showOutputs(state) {
  const running = state.stream.joined || state.stream.target === "";
  const rows = state.outputs.map(output => row(output, running));
  if (rows.length === 0) rows.push(make("li", { className: "quiet", textContent: text("noOutput") }));
  byId("outputs").replaceChildren(...rows);
}
