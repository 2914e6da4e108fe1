// The way to the console: its state, what is live, and what it is asked to do.

const answerTimeoutMs = 20000;
const silenceMs = 40000; // the console says that it is alive every 15 s

let token = "";
let source = null;
let silence = null;
let lastId = "";

export class Refused extends Error {
  constructor(status, answer) {
    super(answer.error ?? String(status));
    this.status = status;
    this.retryAfter = answer.retryAfter;
  }
}

/** No answer came. */
export class Away extends Error {
  constructor() {
    super("the console cannot be reached");
  }
}

/** Fetches, for so long at the most; AbortSignal.timeout() is too young for many a phone. */
async function fetchInTime(path, options = {}) {
  const given = new AbortController();
  const patience = setTimeout(() => given.abort(), answerTimeoutMs);
  try {
    return await answerOf(await fetch(path, { ...options, signal: given.signal }));
  } catch (error) {
    if (error instanceof Refused) throw error;
    throw new Away();
  } finally {
    clearTimeout(patience);
  }
}

async function answerOf(response) {
  if (!response.ok) throw new Refused(response.status, await response.json().catch(() => ({})));
  return response.json();
}

export async function getState() {
  const state = await fetchInTime("/api/state");
  token = state.session.token ?? "";
  return state;
}

export async function post(path, body = {}) {
  const headers = { "Content-Type": "application/json", "X-Session-Token": token };
  return fetchInTime(path, { method: "POST", headers, body: JSON.stringify(body) });
}

/** Whether the console lets nobody else follow what is live; an EventSource does not tell why it was refused. */
async function isFull(url) {
  const asked = new AbortController();
  const patience = setTimeout(() => asked.abort(), answerTimeoutMs);
  const response = await fetch(url, { signal: asked.signal }).catch(() => null);
  clearTimeout(patience);
  asked.abort();
  return response?.status === 503;
}

/**
 * Follows what is live until stop(): handlers `joined`, `lost`, `full`, `state`, `reset`, `record` and `missed`. After
 * an interruption it goes on where it was. A console that has gone without a word is lost after a silence.
 */
export function follow(handlers) {
  stop();
  const url = "/api/events?after=" + encodeURIComponent(lastId);
  let joined = false;
  source = new EventSource(url);
  const lose = () => {
    stop();
    handlers.lost();
  };
  const listen = (name, handle) => source.addEventListener(name, event => {
    expectMore(lose);
    handle(event);
  });
  expectMore(lose);
  source.onopen = () => {
    joined = true;
    handlers.joined();
  };
  source.onerror = async () => {
    if (joined) return lose();
    stop();
    if (await isFull(url)) handlers.full();
    else handlers.lost();
  };
  listen("alive", () => {});
  listen("reset", () => handlers.reset());
  listen("state", event => handlers.state(JSON.parse(event.data)));
  listen("missed", event => handlers.missed(JSON.parse(event.data).count));
  listen("record", event => {
    lastId = event.lastEventId;
    handlers.record(JSON.parse(event.data), Number(lastId.split("-")[1]));
  });
}

function expectMore(lose) {
  clearTimeout(silence);
  silence = setTimeout(lose, silenceMs);
}

export function stop() {
  clearTimeout(silence);
  source?.close();
  source = null;
}

/** What follows begins anew, with all that the console still has. */
export function forget() {
  stop();
  lastId = "";
}
