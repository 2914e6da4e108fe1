// Puts the page together: asks for the state, follows what is live, and joins again when the console was lost.

import { Away, follow, forget, getState, post, Refused, stop } from "./box.js";
import { byId, outcome, setText } from "./dom.js";
import { showActions } from "./actions.js";
import { addMissed, addRecord, clearRecords, showRadioNames } from "./live.js";
import { showOutputs } from "./outputs.js";
import { countFrame, showRadios } from "./radios.js";
import { applyTexts, text } from "./texts.js";
import { showTop } from "./top.js";

const retryMs = 2000;
const fullMs = 10000; // others have to go first
let session = {};

function show(state) {
  const { host, gateway, version } = state.gateway;
  setText(byId("gateway"), [gateway ?? host, version].filter(Boolean).join(" · "));
  showTop(state, session);
  showRadios(state, session);
  showOutputs(state);
  showActions(state, session);
  showRadioNames(state.radios);
}

/** Says why the page does not follow what is live, and tries again after a while. */
function stayBehind(reason, waitMs) {
  setText(byId("lost"), text(reason));
  byId("lost").hidden = false;
  setTimeout(start, waitMs);
}

const handlers = {
  joined: () => { byId("lost").hidden = true; },
  lost: () => stayBehind("lost", retryMs),
  full: () => stayBehind("full", fullMs),
  state: show,
  reset: clearRecords,
  missed: addMissed,
  record: (record, number) => {
    addRecord(record);
    if (record.record === "frame") countFrame(record, number);
  },
};

function askForPassword(asked) {
  byId("login").hidden = !asked;
  byId("content").hidden = asked;
  byId("top").hidden = asked;
  byId("log-out").hidden = asked || !session.open;
  if (asked) byId("password").focus();
}

async function start() {
  try {
    const state = await getState();
    session = state.session;
    askForPassword(false);
    show(state);
    follow(handlers);
  } catch (error) {
    if (error instanceof Refused && error.status === 401) {
      session = {};
      byId("lost").hidden = true;
      stop();
      askForPassword(true);
    } else {
      if (!(error instanceof Refused || error instanceof Away)) console.error(error);
      handlers.lost();
    }
  }
}

byId("login").addEventListener("submit", async event => {
  event.preventDefault();
  const told = event.target.querySelector(".outcome");
  try {
    await post("/api/login", { password: byId("password").value });
    byId("password").value = "";
    outcome(told, "good", "");
    await start();
  } catch (error) {
    const reasons = { 401: "loginWrong", 429: "loginWait" };
    outcome(told, "error", text(reasons[error.status] ?? "loginFailed", { seconds: error.retryAfter }));
  }
});

byId("log-out").addEventListener("click", async () => {
  forget();
  await post("/api/logout").catch(() => {});
  clearRecords();
  start();
});

applyTexts();
start();
