/** What a person may do, if the server lets the page act: faults of the source, monitors, component states. */

import type { Action_wish, Known_fault, Planned_fault } from "../feed";
import { button, h, keep_list, select, set_attribute, set_text } from "../dom";
import { duration, plain_number, sentence } from "../format";
import { glyph, set_glyph } from "../glyph";
import type { Context, Panel } from "../panel";

const faults_shown = 50;

/** A field of the form, with its hint and what is wrong with its text. */
interface Field {
  element: HTMLElement;
  input: HTMLInputElement;
  hint: HTMLElement;
}

export function control_panel(context: Context): Panel {
  const { model } = context;
  const faults = fault_part(context);
  const states = state_part(context);
  const draw = () => {
    faults.draw();
    states.draw();
  };
  model.follow(["hello", "sourceFaults", "monitors", "component", "connection", "reset"], context.redraw);
  const body = h("div", { class: "body" }, faults.element, states.element);
  return { id: "control", title: "Control", body, draw, is_wanted: () => model.hello?.control === true };
}

/** A paragraph for the answer of the last action, read out when it changes. */
function answer_line(context: Context): { element: HTMLElement; send(action: Action_wish): void } {
  const element = h("p", { class: "answer", role: "status" });
  let last = 0;
  return {
    element,
    send(action) {
      const number = ++last;
      set_text(element, "Sent");
      set_attribute(element, "data-tone", "note");
      context.act(action, (text, ok) => {
        if (number !== last) return;
        set_text(element, ok ? `Done: ${text}.` : sentence(text));
        set_attribute(element, "data-tone", ok ? "good" : "bad");
      });
    },
  };
}

// Faults of the source

function fault_part(context: Context): { element: HTMLElement; draw(): void } {
  const { model } = context;
  const answer = answer_line(context);
  const kind_choice = select<string>("Fault", [], () => choose());
  const meaning = h("p", { class: "meaning", id: "fault-meaning" });
  kind_choice.list.id = "fault-kind";
  kind_choice.list.setAttribute("aria-describedby", meaning.id);
  const value = field("Value", "fault-value");
  const word = select<string>("Value", [], () => undefined);
  const start = field("Start", "fault-start");
  const length = field("Duration", "fault-duration");
  set_text(start.hint, "s from now; empty: at once");
  set_text(length.hint, "s; empty: until it is ended");
  const problem = h("p", { class: "problem", id: "fault-problem", role: "alert" });
  const order_line = h("p", { class: "caption order" });
  const submit = h("button", { type: "submit" }, "Start the fault");
  const form = h("form", { novalidate: true, autocomplete: "off" },
    kind_choice.element, meaning,
    h("div", { class: "fields" }, value.element, word.element, start.element, length.element),
    problem,
    h("div", { class: "line" }, submit, order_line));
  const absence = h("p", { class: "absence" });
  const list = h("ul", { class: "planned" });
  const none = h("p", { class: "caption none" });
  const end_all = button("End all faults", () => answer.send({ action: "endFaults", fault: "" }));
  const heading = h("h3", { tabindex: -1 }, "In force and to come");
  const planned = h("div", { class: "now-planned" }, heading, list, none, end_all);
  let filled: readonly Known_fault[] | undefined;
  let in_force: Set<string> | undefined;

  const chosen = (): Known_fault | undefined => filled?.find((one) => one.name === kind_choice.list.value);

  function choose(): void {
    const kind = chosen();
    set_text(meaning, kind ? sentence(kind.meaning) : "");
    const has_number = kind !== undefined && kind.usual !== "" && kind.choices.length === 0;
    value.element.hidden = !has_number;
    word.element.hidden = !kind?.choices.length;
    value.input.value = "";
    if (has_number) {
      set_text(value.hint, `${kind.unit}, ${plain_number(kind.low)} to ${plain_number(kind.high)}; empty: ${kind.usual}`);
    }
    if (kind?.choices.length) {
      word.fill(kind.choices.map((name) => [name, name] as const));
      word.set(kind.usual);
    }
    complain();
    show_order();
  }

  function complain(wrong?: Field, text = ""): void {
    for (const one of [value, start, length]) {
      set_attribute(one.input, "aria-invalid", one === wrong ? "true" : null);
      set_attribute(one.input, "aria-describedby", one === wrong ? `${one.hint.id} ${problem.id}` : one.hint.id);
    }
    set_text(problem, text);
    wrong?.input.focus();
  }

  /** The number in a field; undefined: it is empty. Throws Wrong for a text that is no number within the bounds. */
  function number_in(one: Field, low: number, high: number, unit: string, above = false): number | undefined {
    const text = one.input.value.trim().replace(/^\u2212/, "-");
    if (text === "") return undefined;
    const number = /^-?(\d+\.?\d*|\.\d+)$/.test(text) ? Number(text) : NaN;
    if (number >= low && number <= high && !(above && number === low)) return number;
    const range = high === Infinity ? (above ? `above ${plain_number(low)}` : `from ${plain_number(low)}`) : `from ${plain_number(low)} to ${plain_number(high)}`;
    throw new Wrong(one, `${one.input.dataset["name"]}: a number ${range} (${unit}) is expected, found “${text.slice(0, 40)}”.`);
  }

  /** As `posctl fault` takes it. */
  function order(): string {
    const kind = chosen();
    if (!kind) return "";
    let text = kind.name;
    if (kind.choices.length) text += `=${word.list.value}`;
    else if (kind.usual !== "") {
      const number = number_in(value, kind.low, kind.high, kind.unit);
      if (number !== undefined) text += `=${number}`;
    }
    // The gateway knows the longest times.
    const from = number_in(start, 0, Infinity, "s");
    const time = number_in(length, 0, Infinity, "s", true);
    if (from !== undefined || time !== undefined) text += `@${from ?? 0}`;
    return time === undefined ? text : `${text}+${time}`;
  }

  function show_order(): void {
    try {
      const text = order();
      set_text(order_line, text && `the same as posctl fault ${text}`);
    } catch {
      set_text(order_line, "");
    }
  }

  form.addEventListener("input", () => {
    complain();
    show_order();
  });
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    try {
      complain();
      answer.send({ action: "makeFault", fault: order() });
    } catch (error) {
      if (!(error instanceof Wrong)) throw error;
      complain(error.field, error.message);
    }
  });
  model.follow(["reset"], () => (in_force = undefined));
  model.follow(["sourceFaults"], () => {
    if (!model.source_faults?.data.present) {
      in_force = undefined;
      return;
    }
    const known = in_force;
    in_force = new Set(model.source_faults.data.faults.filter((one) => one.inForce).map((one) => one.fault));
    if (!known) return;
    for (const one of in_force) if (!known.has(one)) context.announce(`Fault in force: ${one}`);
    for (const one of known) if (!in_force.has(one)) context.announce(`Fault ended: ${one}`);
  });

  function draw(): void {
    const state = model.source_faults;
    const present = state?.data.present === true;
    set_attribute(element, "data-none", present ? null : "");
    absence.hidden = present;
    set_text(absence, state ? sentence(state.data.text) : "");
    if (model.fault_kinds !== filled) {
      filled = model.fault_kinds;
      const before = kind_choice.list.value;
      kind_choice.fill(filled.map(({ name }) => [name, name] as const));
      if (kind_choice.list.value !== before || !before) choose();
    }
    draw_planned(present ? state.data.faults : [], state ? (model.now() - state.at) / 1000 : 0);
  }

  function draw_planned(all: readonly Planned_fault[], elapsed: number): void {
    const before = document.activeElement;
    keep_list(list, all.slice(0, faults_shown), (one) => one.fault, (one) => make_planned(one, (fault) => answer.send({ action: "endFaults", fault })),
      (row, one) => {
        set_glyph(row.firstElementChild as SVGSVGElement, one.inForce ? "warn" : "note");
        set_text(row.querySelector(".when")!, when(one, elapsed));
      });
    const more = all.length - faults_shown;
    set_text(none, all.length === 0 ? "No fault is in force." : more > 0 ? `and ${more} more` : "");
    end_all.disabled = all.length === 0;
    // The row of the button that had the focus has gone.
    if (before !== document.activeElement && document.activeElement === document.body) {
      (list.querySelector<HTMLElement>("button") ?? heading).focus();
    }
  }

  const element = h("div", { class: "faults" },
    h("div", {}, h("h3", {}, "Faults of the GNSS source"), absence, form, answer.element),
    planned);
  return { element, draw };
}

class Wrong extends Error {
  constructor(readonly field: Field, message: string) {
    super(message);
  }
}

function field(name: string, id: string): Field {
  const hint = h("span", { class: "hint", id: `${id}-hint` });
  const input = h("input", { type: "text", inputmode: "decimal", size: 9, maxlength: 40, id, "data-name": name, "aria-describedby": hint.id, spellcheck: "false" });
  return { element: h("div", { class: "field" }, h("label", { for: id }, name), input, hint), input, hint };
}

function when(one: Planned_fault, elapsed: number): string {
  const text = one.inForce ? `in force for ${duration((one.sinceS ?? 0) + elapsed)}` : `begins in ${duration((one.startsInS ?? 0) - elapsed)}`;
  return one.endsInS === null ? text : `${text}, ends in ${duration(one.endsInS - elapsed)}`;
}

function make_planned(one: Planned_fault, end: (fault: string) => void): Element {
  const stop = button("End", () => end(one.fault));
  stop.append(h("span", { class: "unseen" }, ` the fault ${one.fault}`));
  const [what, time] = one.fault.split("@", 2);
  const order = h("span", { class: "order" }, what, time && h("wbr"), time && `@${time}`);
  return h("li", {}, glyph("note"), order, h("span", { class: "when" }), stop);
}

// Monitors and component states

function state_part(context: Context): { element: HTMLElement; draw(): void } {
  const { model } = context;
  const answer = answer_line(context);
  const monitor = select<string>("Monitor", [], () => undefined);
  const reason = select<string>("Reason", [], () => undefined);
  const init = button("Initialise", () => answer.send({ action: "initMonitor", monitor: monitor.list.value, reason: reason.list.value }));
  const states = h("div", { class: "states" });
  let offered = "";

  function draw(): void {
    const reasons = model.hello?.monitorReasons ?? [];
    const names = model.hello?.componentStates ?? [];
    const wanted = [...model.monitors.keys(), ...reasons, ...names].join();
    if (wanted === offered) return;
    offered = wanted;
    monitor.fill([...model.monitors.keys()].map((name) => [name, name] as const));
    reason.fill(reasons.map((name) => [name, name] as const));
    states.replaceChildren(...names.map((state) => button(`Request ${state}`, () => answer.send({ action: "componentState", state }))));
  }

  const element = h("div", { class: "requests" },
    h("h3", {}, "Monitors"), h("div", { class: "line" }, monitor.element, reason.element, init),
    h("h3", {}, "Component state"), states,
    answer.element);
  return { element, draw };
}
