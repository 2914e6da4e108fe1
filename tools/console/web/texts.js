// The words of the page, in the browser's language: English or French.

export const language =
  (navigator.languages ?? [navigator.language]).map(tag => tag.slice(0, 2)).find(tag => tag === "fr" || tag === "en") ?? "en";

const [texts, words] = await Promise.all(["/texts.json", "/words.json"].map(async path => (await fetch(path)).json()));
const own = texts[language];

/** A text of the page, with {names} replaced. */
export function text(key, values = {}) {
  return (own[key] ?? key).replace(/\{(\w+)\}/g, (whole, name) => values[name] ?? whole);
}

/** A word that quillonctl watch uses, too: of a kind, a field, a state, a direction. */
export function word(table, key) {
  return words[table]?.[key]?.[language] ?? key;
}

export const kinds = Object.keys(words.kinds);
export const fieldsOf = kind => words.kinds[kind]?.fields ?? [];

const escaped = part => part.replace(/[.*+?^${}()|[\]\\]/g, "\\$&");
const phrases = Object.entries(texts.findings).map(([english, french]) => ({
  pattern: new RegExp("^" + english.split(/\{\d\}/).map(escaped).join("(.*)") + "$", "s"),
  french,
}));

/** A sentence of quillonctl in the language of the page; as it is when nobody has translated it. */
export function phrase(sentence) {
  if (language === "en") return sentence;
  for (const { pattern, french } of phrases) {
    const found = pattern.exec(sentence);
    if (found) return french.replace(/\{(\d)\}/g, (whole, number) => phrase(found[number] ?? ""));
  }
  return sentence;
}

const clock = new Intl.DateTimeFormat(language, { hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23" });
const dayAndClock = new Intl.DateTimeFormat(language, { dateStyle: "short", timeStyle: "medium", hourCycle: "h23" });
const relative = new Intl.RelativeTimeFormat(language, { numeric: "auto" });

export function timeOfDay(iso) {
  const time = new Date(iso);
  if (isNaN(time)) return "";
  return time.toDateString() === new Date().toDateString() ? clock.format(time) : dayAndClock.format(time);
}

/** "12 seconds ago", and the like. */
export function ago(seconds) {
  for (const [unit, length] of [["day", 86400], ["hour", 3600], ["minute", 60]])
    if (seconds >= length) return relative.format(-Math.floor(seconds / length), unit);
  return relative.format(-Math.max(0, Math.floor(seconds)), "second");
}

export function applyTexts() {
  document.documentElement.lang = language;
  for (const element of document.querySelectorAll("[data-text]")) element.textContent = text(element.dataset.text);
}
