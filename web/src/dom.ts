/** Elements in few words. Texts are always text, never markup. */

export type Child = Node | string | null | undefined | false;
type Attributes = { [name: string]: string | number | boolean | undefined };

function fill(element: Element, attributes: Attributes, children: readonly Child[]): void {
  for (const [name, value] of Object.entries(attributes)) {
    if (value === undefined || value === false) continue;
    element.setAttribute(name, value === true ? "" : String(value));
  }
  for (const child of children) if (child) element.append(child);
}

export function h<K extends keyof HTMLElementTagNameMap>(
  name: K,
  attributes: Attributes = {},
  ...children: Child[]
): HTMLElementTagNameMap[K] {
  const element = document.createElement(name);
  fill(element, attributes, children);
  return element;
}

export function svg<K extends keyof SVGElementTagNameMap>(
  name: K,
  attributes: Attributes = {},
  ...children: Child[]
): SVGElementTagNameMap[K] {
  const element = document.createElementNS("http://www.w3.org/2000/svg", name);
  fill(element, attributes, children);
  return element;
}

/** Writes only what differs, so that a quiet page costs nothing and a screen reader is not disturbed. */
export function set_text(element: Node, text: string): void {
  if (element.textContent !== text) element.textContent = text;
}

export function set_attribute(element: Element, name: string, value: string | null): void {
  if (element.getAttribute(name) === value) return;
  if (value === null) element.removeAttribute(name);
  else element.setAttribute(name, value);
}

/** Keeps a child for each item, in order: made once, then updated. Of items with the same key only the first has a child. */
export function keep_list<T>(
  parent: Element,
  items: readonly T[],
  key: (item: T) => string,
  make: (item: T) => Element,
  update: (element: Element, item: T) => void,
): void {
  const known = new Map<string, Element>();
  for (const child of parent.children) known.set((child as HTMLElement | SVGElement).dataset["key"] ?? "", child);
  let at: Element | null = parent.firstElementChild;
  const done = new Set<string>();
  for (const item of items) {
    const name = key(item);
    if (done.has(name)) continue;
    done.add(name);
    let element = known.get(name);
    if (!element) {
      element = make(item);
      (element as HTMLElement | SVGElement).dataset["key"] = name;
    }
    known.delete(name);
    update(element, item);
    if (element === at) at = at.nextElementSibling;
    else parent.insertBefore(element, at);
  }
  for (const element of known.values()) element.remove();
}

export function button(text: string, action: () => void, attributes: Attributes = {}): HTMLButtonElement {
  const element = h("button", { type: "button", ...attributes }, text);
  element.addEventListener("click", action);
  return element;
}

export interface Choice<T extends string> {
  element: HTMLElement;
  set(value: T): void;
}

/** A row of options of which one is chosen: radio buttons, so that arrow keys work. */
export function choice<T extends string>(
  legend: string,
  options: readonly (readonly [value: T, text: string])[],
  chosen: (value: T) => void,
): Choice<T> {
  const name = `choice-${legend.replace(/\W+/g, "-")}`;
  const inputs = options.map(([value, text]) => {
    const input = h("input", { type: "radio", name, value });
    input.addEventListener("change", () => chosen(value));
    return { input, label: h("label", {}, input, h("span", {}, text)) };
  });
  return {
    element: h("fieldset", { class: "choice" }, h("legend", {}, legend), ...inputs.map((one) => one.label)),
    set(value) {
      for (const { input } of inputs) input.checked = input.value === value;
    },
  };
}

export function select<T extends string>(
  label: string,
  options: readonly (readonly [value: T, text: string])[],
  chosen: (value: T) => void,
): { element: HTMLElement; list: HTMLSelectElement; set(value: T): void; fill(options: readonly (readonly [T, string])[]): void } {
  const list = h("select");
  const fill_list = (entries: readonly (readonly [T, string])[]) => {
    const value = list.value;
    list.replaceChildren(...entries.map(([name, text]) => h("option", { value: name }, text)));
    if (entries.some(([name]) => name === value)) list.value = value;
  };
  fill_list(options);
  list.addEventListener("change", () => chosen(list.value as T));
  return {
    element: h("label", { class: "field" }, h("span", {}, label), list),
    list,
    set(value) {
      list.value = value;
    },
    fill: fill_list,
  };
}
