/** Every input, output and system function as a light with its word; what has happened to them. */

import type { Component, Group, Status_name } from "../feed";
import { h, keep_list, set_attribute, set_text } from "../dom";
import { clock_time, duration, group_word, label_of, sentence, status_word } from "../format";
import { glyph, set_glyph, tone_of, type Tone } from "../glyph";
import type { Event_line, Lane } from "../journal";
import { Palette, Surface, type Context, type Panel } from "../panel";

const groups: readonly (readonly [Group, string])[] = [["inputs", "Inputs"], ["outputs", "Outputs"], ["system", "System functions"]];
const lanes: readonly (readonly [Lane, string])[] = [["application", "application"], ["status", "status"], ["monitor", "monitors"], ["fault", "faults"], ["component", "component"]];
const events_shown = 100;

interface Light {
  group: Group;
  name: string;
  status: Status_name;
}

export function health_panel(context: Context): Panel {
  const { model, cursor } = context;
  const palette = new Palette(context.redraw);
  const lists = new Map<Group, HTMLElement>();
  const boxes = groups.map(([group, title]) => {
    const list = h("ul", { class: "lights" });
    lists.set(group, list);
    return h("div", { class: `group ${group}` }, h("h3", {}, title), list);
  });
  const explanation = h("p", { class: "explanation", id: "health-explanation" });
  const lights = h("div", { class: "boxes" }, ...boxes);
  const findings = h("ul", { class: "findings" });
  const canvas = h("canvas", { class: "strip", role: "img", "aria-label": "Time line of events; the list below has them in words" });
  const surface = new Surface(canvas, context.redraw);
  const events = h("ol", { class: "events", tabindex: 0, "aria-label": "Events, the newest first" });
  const component = h("p", { class: "component" });
  let looked_at: { group: Group; name: string } | undefined;
  let listed = NaN;

  model.follow(["status", "events", "application", "component", "hello", "reset", "fault", "change", "monitor"], context.redraw);
  cursor.follow(context.redraw);

  // One stop of the Tab key; arrows go from light to light.
  lights.addEventListener("keydown", (event) => {
    const all = [...lights.querySelectorAll<HTMLElement>("[data-light]")];
    const at = all.indexOf(document.activeElement as HTMLElement);
    const next = { ArrowDown: at + 1, ArrowRight: at + 1, ArrowUp: at - 1, ArrowLeft: at - 1, Home: 0, End: all.length - 1 }[event.key];
    if (at < 0 || next === undefined) return;
    event.preventDefault();
    all[Math.max(0, Math.min(all.length - 1, next))]?.focus();
  });
  const look = (event: Event) => {
    const item = (event.target as Element).closest<HTMLElement>("[data-light]");
    if (!item) return;
    const [group, name] = item.dataset["light"]!.split(".") as [Group, string];
    looked_at = { group, name };
    if (event.type === "focusin") {
      for (const one of lights.querySelectorAll("[data-light]")) set_attribute(one, "tabindex", one === item ? "0" : "-1");
    }
    explain();
  };
  lights.addEventListener("focusin", look);
  lights.addEventListener("pointerover", look);
  lights.addEventListener("pointerleave", () => {
    const focused = lights.querySelector<HTMLElement>("[data-light]:focus");
    const [group, name] = focused?.dataset["light"]?.split(".") ?? [];
    looked_at = group && name ? { group: group as Group, name } : undefined;
    explain();
  });

  function explain(): void {
    const status = model.status;
    if (!status) return set_text(explanation, "The application has not said its state yet.");
    if (!looked_at) {
      const old = document.body.hasAttribute("data-stale");
      return set_text(explanation, old
        ? `These states are of ${clock_time(model.status_at)}: nothing newer has come.`
        : "Point at a light, or focus it, to read what it means.");
    }
    const { group, name } = looked_at;
    const words = status.words[group]?.[name];
    const since = status.sinceS[group]?.[name];
    set_text(explanation, `${label_of(name)}, ${group_word(group)}: ${status_word(status[group][name] ?? "")}`
      + `${since === undefined ? "" : ` for ${duration(since)}`}. ${words ? `${sentence(words.meaning)} ${sentence(words.what)}` : ""}`);
  }

  function draw(): void {
    const status = model.status;
    set_attribute(body, "data-none", status ? null : "");
    for (const [group] of groups) {
      const items: Light[] = Object.entries(status?.[group] ?? {})
        // Reserved bytes of the data identifier are no functions.
        .filter(([name]) => !/^system\d+$/.test(name))
        .map(([name, value]) => ({ group, name, status: value }));
      keep_list(lists.get(group)!, items, (one) => one.name, make_light, update_light);
    }
    if (!lights.querySelector('[data-light][tabindex="0"]')) lights.querySelector("[data-light]")?.setAttribute("tabindex", "0");
    explain();
    draw_findings();
    draw_strip();
    draw_events();
    draw_component(model.component);
    locked.hidden = model.hello?.control !== false;
  }

  function draw_findings(): void {
    const items: { tone: Tone; text: string }[] = [];
    const status = model.status;
    for (const faults of Object.values(status?.dataBus ?? {})) {
      for (const fault of faults) items.push({ tone: fault.present ? "bad" : "off", text: fault.text });
    }
    if (status && items.length === 0) items.push({ tone: "good", text: "No fault on the data bus since the start." });
    const known = new Set(items.map((one) => sentence(one.text)));
    for (const finding of status?.findings ?? []) if (!known.has(sentence(finding))) items.unshift({ tone: "warn", text: sentence(finding) });
    keep_list(findings, items.slice(0, 12), (one) => one.text, (one) => h("li", {}, glyph(one.tone), h("span", {}, one.text)),
      (element, one) => set_glyph(element.firstElementChild as SVGSVGElement, one.tone));
  }

  function draw_strip(): void {
    const paint = surface.context;
    const { width, height } = surface;
    if (!width || !height) return;
    const { from, to } = context.time_window();
    const rem = palette.rem;
    const left = 5.4 * rem;
    const x = (t: number) => left + ((width - left - 4) * (t - from)) / (to - from);
    const lane_height = height / lanes.length;
    paint.fillStyle = palette.get("paper");
    paint.fillRect(0, 0, width, height);
    paint.font = palette.font(0.75);
    paint.textBaseline = "middle";
    paint.lineWidth = 1;
    lanes.forEach(([, title], i) => {
      const y = Math.round((i + 0.5) * lane_height) + 0.5;
      paint.fillStyle = palette.get("ink-2");
      paint.fillText(title, 0, y);
      paint.strokeStyle = palette.get("line");
      paint.beginPath();
      paint.moveTo(left, y);
      paint.lineTo(width, y);
      paint.stroke();
    });
    for (const event of model.journal.events) {
      const lane = lanes.findIndex(([name]) => name === event.lane);
      if (lane < 0 || event.at < from || event.at > to) continue;
      paint.fillStyle = palette.get(event.tone === "note" ? "accent" : event.tone === "off" ? "ink-3" : event.tone);
      const y = (lane + 0.5) * lane_height;
      const size = Math.min(0.42 * lane_height, 0.4 * rem);
      paint.beginPath();
      if (event.tone === "bad") {
        paint.moveTo(x(event.at), y - size);
        paint.lineTo(x(event.at) + size, y + size);
        paint.lineTo(x(event.at) - size, y + size);
      } else if (event.tone === "good") paint.arc(x(event.at), y, 0.8 * size, 0, 2 * Math.PI);
      else paint.rect(x(event.at) - size / 3, y - size, (2 * size) / 3, 2 * size);
      paint.fill();
    }
    if (cursor.t >= from && cursor.t <= to) {
      paint.strokeStyle = palette.get("ink");
      paint.beginPath();
      paint.moveTo(x(cursor.t), 0);
      paint.lineTo(x(cursor.t), height);
      paint.stroke();
    }
  }

  function draw_events(): void {
    const newest = model.journal.events.at(-1)?.number ?? 0;
    if (newest === listed) return;
    listed = newest;
    const shown = model.journal.events.filter((one) => one.lane !== "offer").slice(-events_shown).sort((a, b) => b.at - a.at);
    set_attribute(events, "data-none", shown.length ? null : "");
    keep_list(events, shown, (one) => String(one.number), make_event, () => undefined);
  }

  function draw_component(state: Component | undefined): void {
    const text = !state ? "" : !state.available ? `Component state: not known. ${sentence(state.text)}` : state.state ? `Component state ${state.state}` : `Component state: none confirmed yet. ${sentence(state.text)}`;
    set_text(component, text);
  }

  const locked = h("p", { class: "locked" }, "Read only. posctl serve --control adds a panel that initialises monitors, requests component states and makes faults of the source.");

  const body = h("div", { class: "body" },
    lights,
    explanation,
    h("div", { class: "happenings" },
      h("h3", {}, "Findings and data bus faults"),
      findings,
      h("h3", {}, "Events"),
      canvas,
      events,
      component),
    locked);
  return { id: "health", title: "Health", body, draw };
}

function make_light(one: Light): Element {
  return h("li", { "data-light": `${one.group}.${one.name}`, tabindex: -1, "aria-describedby": "health-explanation" },
    glyph("off"), h("span", { class: "name" }, label_of(one.name)), " ", h("span", { class: "word" }));
}

function update_light(element: Element, one: Light): void {
  set_glyph(element.firstElementChild as SVGSVGElement, tone_of(one.status));
  set_attribute(element, "data-status", one.status);
  set_text(element.lastElementChild!, status_word(one.status));
}

function make_event(event: Event_line): Element {
  return h("li", {}, h("time", {}, clock_time(event.at)), glyph(event.tone), h("span", {}, event.text));
}
