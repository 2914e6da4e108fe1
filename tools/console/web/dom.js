// Helpers for the page's elements. Whatever is shown goes through textContent and never becomes markup.

export const byId = id => document.getElementById(id);

/** An element with properties (className, title, dataset ...) and children: elements or texts. */
export function make(tag, properties = {}, ...children) {
  const { dataset, attributes, ...others } = properties;
  const element = Object.assign(document.createElement(tag), others);
  Object.assign(element.dataset, dataset);
  for (const [name, value] of Object.entries(attributes ?? {})) element.setAttribute(name, value);
  element.append(...children.filter(child => child !== null && child !== undefined));
  return element;
}

/** Sets a text only when it is another one, so that a screen reader is not told the same again. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/** What comes from a radio, without the characters that would not show. */
export function visible(text) {
  return String(text ?? "").replace(/[\p{Cc}\p{Cf}]/gu, "\uFFFD");
}

export function outcome(element, level, text) {
  element.dataset.level = level;
  setText(element, text);
}
