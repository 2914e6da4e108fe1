// The way to the console: its state, what is live, and what it is asked to do.

let token = "";
let source = null;
let lastId = "";

export class Refused extends Error {
  constructor(status, answer) {
    super(answer.error ?? String(status));
    this.status = status;
    this.retryAfter = answer.retryAfter;
  }
}

async function answerOf(response) {
  const answer = await response.json().catch(() => ({}));
  if (!response.ok) throw new Refused(response.status, answer);
  return answer;
}

export async function getState() {
  const state = await answerOf(await fetch("/api/state"));
  token = state.session.token ?? "";
  return state;
}

export async function post(path, body = {}) {
  const headers = { "Content-Type": "application/json", "X-Session-Token": token };
  return answerOf(await fetch(path, { method: "POST", headers, body: JSON.stringify(body) }));
}

/**
 * Follows what is live until stop(): handlers `joined`, `lost`, `state`, `reset`, `record` and `missed`. After an
 * interruption it goes on where it was.
 */
export function follow(handlers) {
  stop();
  source = new EventSource("/api/events?after=" + encodeURIComponent(lastId));
  source.onopen = () => handlers.joined();
  source.onerror = () => {
    stop();
    handlers.lost();
  };
  source.addEventListener("reset", () => handlers.reset());
  source.addEventListener("state", event => handlers.state(JSON.parse(event.data)));
  source.addEventListener("missed", event => handlers.missed(JSON.parse(event.data).count));
  source.addEventListener("record", event => {
    lastId = event.lastEventId;
    handlers.record(JSON.parse(event.data), Number(lastId.split("-")[1]));
  });
}

export function stop() {
  source?.close();
  source = null;
}
