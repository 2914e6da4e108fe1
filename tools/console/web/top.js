// The line at the top that answers "does it work?".

import { post } from "./box.js";
import { byId, make, outcome, setText } from "./dom.js";
import { phrase, text } from "./texts.js";

const rank = { error: 2, warning: 1 };

function sentence(finding) {
  const problem = phrase(finding.problem);
  const whole = `${phrase(finding.subject)}${text("colon")}${problem}.`;
  return whole.charAt(0).toLocaleUpperCase() + whole.slice(1);
}

function remedy(finding) {
  return text("remedy", { remedy: phrase(finding.remedy) });
}

export function showTop(state, session) {
  const findings = [...state.findings].sort((a, b) => rank[b.severity] - rank[a.severity]);
  const [worst, ...others] = findings;
  const top = byId("top");
  const isWell = state.checked === "" ? ["unknown", text("checking")] : ["good", text("allWell")];
  const [level, verdict] = worst ? [worst.severity, sentence(worst)] : isWell;
  top.dataset.level = level;
  setText(byId("verdict"), verdict);
  const idle = state.checked !== "" && state.radios.length === 0 ? text("noRadioYet") : "";
  setText(byId("remedy"), worst ? remedy(worst) : idle);

  byId("more").hidden = others.length === 0;
  setText(byId("more").querySelector("summary"), text("moreFindings", { count: others.length }));
  byId("findings").replaceChildren(...others.map(finding =>
    make("li", {}, make("strong", { textContent: sentence(finding) }), make("p", { textContent: remedy(finding) }))));
  byId("add-stream").hidden = state.stream.target !== "" || !session.open;
}

byId("add-stream").addEventListener("click", async event => {
  event.target.disabled = true;
  try {
    await post("/api/stream");
    await post("/api/restart");
    setText(byId("remedy"), text("streamAdded"));
  } catch (error) {
    outcome(byId("remedy"), "error", phrase(error.message));
  }
  event.target.disabled = false;
});
