/** Lights: a shape for each state, always beside its word. */

import { set_attribute, svg } from "./dom";

export type Tone = "good" | "warn" | "bad" | "note" | "off";

const shapes: { [tone in Tone]: string } = {
  good: "M8 2.5a5.5 5.5 0 1 0 0 11a5.5 5.5 0 1 0 0-11Z",
  bad: "M8 1 15.5 14.5H.5Z M7.1 6v4h1.8V6Z M7.1 11.2v1.8h1.8v-1.8Z",
  warn: "M8 .8 15.2 8 8 15.2.8 8Z M8 3.6 3.6 8 8 12.4Z",
  note: "M8 2.5a5.5 5.5 0 1 0 0 11a5.5 5.5 0 1 0 0-11Z M8 4.7a3.3 3.3 0 1 1 0 6.6a3.3 3.3 0 1 1 0-6.6Z",
  off: "M3 7.2h10v1.6H3Z",
};

export function glyph(tone: Tone): SVGSVGElement {
  const element = svg("svg", { class: "glyph", viewBox: "0 0 16 16", "aria-hidden": "true", focusable: "false" }, svg("path", { "fill-rule": "evenodd" }));
  set_glyph(element, tone);
  return element;
}

export function set_glyph(element: SVGSVGElement, tone: Tone): void {
  set_attribute(element, "data-tone", tone);
  set_attribute(element.firstElementChild!, "d", shapes[tone]);
}

export function tone_of(status: string | null | undefined): Tone {
  return status === "Nominal" ? "good" : status === "Error" ? "bad" : status === "Init" ? "note" : "off";
}
