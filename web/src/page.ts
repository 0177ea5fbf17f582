/** The page: the verdict on top, the panels below, one loop that draws. */

import { Address } from "./address";
import { button, choice, h, set_attribute, set_text } from "./dom";
import { clock_time, duration, group_word, label_of, sentence, status_word } from "./format";
import { glyph, set_glyph, type Tone } from "./glyph";
import { Model } from "./model";
import { Cursor, type Context, type Panel } from "./panel";
import { control_panel } from "./panels/control";
import { health_panel } from "./panels/health";
import { log_panel } from "./panels/log";
import { now_panel } from "./panels/now";
import { sky_panel } from "./panels/sky";
import { time_panel } from "./panels/time";
import { track_panel } from "./panels/track";
import { wire_panel } from "./panels/wire";
import type { Action } from "./feed";
import type { Source } from "./source";

const panels = [track_panel, now_panel, sky_panel, health_panel, control_panel, time_panel, wire_panel, log_panel];
/** A little under 1/30 s: the display's own frames decide. */
const frame_ms = 30;
const announcements_kept = 6;
const spans = [["60", "1 min"], ["600", "10 min"], ["3600", "1 h"]] as const;

/** Draws panels that asked for it and that are on the screen. */
class Stage {
  private readonly dirty = new Set<Panel>();
  private readonly hidden = new Set<Panel>();
  private last = 0;
  private waiting = false;

  private readonly observer = new IntersectionObserver((entries) => {
    for (const { target, isIntersecting } of entries) {
      const panel = this.by_element.get(target)!;
      if (isIntersecting) this.hidden.delete(panel);
      else this.hidden.add(panel);
    }
    this.wake();
  }, { rootMargin: "100px" });
  private readonly by_element = new Map<Element, Panel>();

  add(panel: Panel, element: Element): void {
    this.by_element.set(element, panel);
    this.observer.observe(element);
    this.redraw(panel);
  }

  redraw(panel: Panel): void {
    this.dirty.add(panel);
    this.wake();
  }

  redraw_all(): void {
    for (const panel of this.by_element.values()) this.dirty.add(panel);
    this.wake();
  }

  private wake(): void {
    if (this.waiting) return;
    this.waiting = true;
    requestAnimationFrame((time) => this.draw(time));
  }

  private draw(time: number): void {
    this.waiting = false;
    if (time - this.last < frame_ms) return this.wake();
    this.last = time;
    for (const panel of this.dirty) {
      if (this.hidden.has(panel)) continue;
      this.dirty.delete(panel);
      panel.draw();
    }
  }
}

interface Condition {
  tone: Tone;
  word: string;
  text: string;
  /** Nothing on the page is of this moment. */
  stale: boolean;
}

/** The first line of the page, in every state that there can be. */
function condition(model: Model): Condition {
  const { connection, application, status } = model;
  if (!model.hello && connection.state !== "lost") {
    return { tone: "note", word: "Connecting", text: "to posctl serve", stale: true };
  }
  if (connection.state !== "open") {
    const gone = duration((Date.now() - model.lost_since) / 1000);
    const wait = connection.retry_at === undefined ? 0 : (connection.retry_at - Date.now()) / 1000;
    const next = wait > 0 ? `next attempt in ${Math.ceil(wait)} s` : "trying now";
    return { tone: "bad", word: "No server", text: `posctl serve has not answered for ${gone}; ${next}`, stale: true };
  }
  if (application && !application.present) {
    const since = duration((model.now() - application.since) / 1000);
    return { tone: "bad", word: "No application", text: `for ${since}${application.text ? `: ${application.text}` : ""}`, stale: true };
  }
  if (!status) return { tone: "note", word: "Waiting", text: "for the application's first status", stale: true };
  const word = { healthy: "Healthy", degraded: "Degraded", failed: "Failed", "no answer": "No answer" }[status.verdict] ?? status.verdict;
  const tone = status.verdict === "healthy" ? "good" : status.verdict === "degraded" ? "warn" : "bad";
  return { tone, word, text: status.reason, stale: status.verdict === "no answer" };
}

export function show(source: Source): Model {
  const model = new Model();
  const address = new Address();
  const cursor = new Cursor();
  const stage = new Stage();

  const announcer = h("div", { class: "unseen", role: "status", "aria-live": "polite" });
  const announce = (text: string) => {
    // A sentence that comes soon after another must not take its place.
    announcer.append(h("p", {}, text));
    while (announcer.childElementCount > announcements_kept) announcer.firstElementChild!.remove();
  };

  let actions = 0;
  const waiting = new Map<number, Parameters<Context["act"]>[1]>();
  const act: Context["act"] = (action, told) => {
    const id = ++actions;
    if (!source.act({ ...action, id } as Action)) return told("not sent: there is no connection", false);
    waiting.set(id, told);
  };
  model.follow(["answer"], () => {
    const { id, ok, text } = model.answer!;
    waiting.get(id)?.(ok ? text : `refused: ${text}`, ok);
    waiting.delete(id);
  });
  model.follow(["connection"], () => {
    if (model.connection.state === "open") return;
    for (const told of waiting.values()) told("no answer: the connection was lost. Look at what holds now before you ask again", false);
    waiting.clear();
  });

  const time_window = () => {
    const span = 1000 * address.number("span", 1, 3600);
    const end = address.number("end", 0, 1e15);
    const to = Number.isNaN(end) ? model.now() : end;
    return { from: to - span, to, live: Number.isNaN(end) };
  };

  const light = glyph("note");
  const word = h("span", { class: "word" });
  const reason = h("p", { class: "reason" });
  const retry = button("Try now", () => source.retry(), { class: "retry", hidden: true });
  const link = h("p", { class: "link" });
  const time = h("p", { class: "clock" });
  const rights = h("p", { class: "rights" });
  const verdict = h("header", { class: "verdict" },
    light,
    h("h1", {}, h("span", { class: "unseen" }, "Positioning: "), word),
    reason,
    retry,
    h("div", { class: "aside" }, time, link, rights));

  const span_choice = choice("Span", spans, (value) => address.set({ span: value }));
  const hold = button("Hold", () => address.set({ end: address.get("end") ? "" : String(Math.round(model.now())) }), { "aria-pressed": "false" });
  const main = h("main");
  const links = h("ul");
  const sections: HTMLElement[] = [];

  for (const make of panels) {
    let panel: Panel | undefined;
    const context: Context = { model, address, cursor, time_window, announce, act, redraw: () => panel && stage.redraw(panel) };
    const made = (panel = make(context));
    const heading = h("h2", { id: `${made.id}-title`, tabindex: -1 }, made.title);
    const enlarge = button("Enlarge", () => address.set({ only: address.get("only") === made.id ? "" : made.id }), { class: "enlarge", "aria-pressed": "false" });
    const enlarge_name = h("span", { class: "unseen" }, ` ${made.title}`);
    enlarge.append(enlarge_name);
    const section = h("section", { id: made.id, class: `panel ${made.id}`, "aria-labelledby": heading.id },
      h("div", { class: "title" }, heading, h("div", { class: "tools" }, ...(made.tools ?? []), enlarge)),
      made.body);
    sections.push(section);
    main.append(section);
    stage.add(made, section);
    const go = h("a", { href: `#${made.id}` }, made.title);
    go.addEventListener("click", (event) => {
      event.preventDefault();
      if (address.get("only")) address.set({ only: made.id });
      section.scrollIntoView({ block: "nearest" });
      heading.focus();
    });
    const item = h("li", {}, go);
    links.append(item);
    const find_place = () => {
      const wanted = made.is_wanted?.() !== false;
      section.hidden = item.hidden = !wanted;
      if (made.is_wanted) set_attribute(main, `data-with-${made.id}`, wanted ? "" : null);
    };
    find_place();
    model.follow(["hello"], find_place);
    address.follow((view) => {
      const alone = view.only === made.id;
      set_attribute(section, "data-alone", alone ? "" : null);
      set_attribute(enlarge, "aria-pressed", String(alone));
      set_text(enlarge.firstChild!, alone ? "Show all" : "Enlarge");
      set_text(enlarge_name, alone ? " panels" : ` ${made.title}`);
    });
  }

  document.body.append(
    h("a", { class: "skip", href: "#track" }, "To the panels"),
    verdict,
    h("nav", { "aria-label": "Panels" }, links, h("div", { class: "tools" }, span_choice.element, hold)),
    main,
    announcer);
  (document.querySelector(".skip") as HTMLElement).addEventListener("click", (event) => {
    event.preventDefault();
    links.querySelector("a")?.click();
  });

  const fill_window = () => {
    const only = address.get("only");
    set_attribute(document.body, "data-only", sections.some((one) => one.id === only && !one.hidden) ? only : null);
  };
  model.follow(["hello"], fill_window);
  address.follow((view) => {
    fill_window();
    span_choice.set(spans.find(([value]) => value === view.span)?.[0] ?? "600");
    set_attribute(hold, "aria-pressed", String(view.end !== ""));
    set_text(hold, view.end === "" ? "Hold" : `Held at ${clock_time(Number(view.end))}`);
    stage.redraw_all();
  });

  // From panel to panel with F6, as from pane to pane in other programs; Escape shows all of them.
  addEventListener("keydown", (event) => {
    if (event.key === "Escape" && address.get("only") && !event.defaultPrevented) {
      address.set({ only: "" });
    } else if (event.key === "F6" && !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      const shown = sections.filter((one) => !one.hidden);
      const at = shown.findIndex((one) => one.contains(document.activeElement));
      const step = event.shiftKey ? -1 : 1;
      const next = at < 0 ? (step > 0 ? 0 : shown.length - 1) : (at + step + shown.length) % shown.length;
      links.querySelectorAll<HTMLElement>("li:not([hidden]) a")[next]!.click();
    }
  });

  const update = () => {
    const now = condition(model);
    set_glyph(light, now.tone);
    set_attribute(verdict, "data-tone", now.tone);
    set_attribute(document.body, "data-stale", now.stale ? "" : null);
    set_text(word, now.word);
    set_text(reason, now.text);
    retry.hidden = model.connection.state !== "lost";
    set_text(time, clock_time(model.now()));
    set_text(link, model.connection.state === "open" ? (model.hello?.source === "recording" ? "Recording" : now.stale ? "Connected" : "Live") : "Not connected");
    set_attribute(link, "title", model.hello?.way ?? null);
    const faults = model.source_faults?.data.faults.filter((one) => one.inForce).length ?? 0;
    set_text(rights, model.hello?.control ? `Control on${faults ? `, ${faults} ${faults === 1 ? "fault" : "faults"} made` : ""}` : "Read only");
    set_attribute(rights, "data-tone", faults ? "warn" : null);
    const title = `${now.word} · Positioning`;
    if (document.title !== title) document.title = title;
  };
  model.follow(["connection", "hello", "application", "status", "reset"], update);
  // The clock, and the words that count seconds.
  setInterval(() => {
    update();
    stage.redraw_all();
  }, 500);
  update();

  let spoken = "";
  model.follow(["connection", "application", "status"], () => {
    const { word: state, text, stale } = condition(model);
    if (state !== spoken) announce(`${state}. ${stale ? "" : text}`);
    spoken = state;
  });
  model.follow(["change"], () => {
    const last = model.last_change;
    if (last) announce(`${label_of(last.name)}, ${group_word(last.group)}: ${status_word(last.status)}. ${sentence(last.meaning)}`);
  });

  source.start(model);
  return model;
}
