/** The application's own lines, as text. */

import { button, h, select, set_attribute, set_text } from "../dom";
import { clock_time } from "../format";
import type { Log_line } from "../journal";
import type { Context, Panel } from "../panel";

const levels = ["fatal", "error", "warn", "info", "debug", "verbose"] as const;
const lines_shown = 400;

export function log_panel(context: Context): Panel {
  const { model, address } = context;
  const list = h("ol", { class: "lines", tabindex: 0, "aria-label": "Log lines, the newest last" });
  const count = h("p", { class: "caption" });
  const level = select("Level", levels.slice(1).map((name) => [name, `${name} and worse`] as const), (value) => address.set({ level: value }));
  const where = select<string>("Context", [["", "all"]], (value) => address.set({ context: value }));
  const search = h("input", { type: "search", placeholder: "Search", "aria-label": "Search the log", maxlength: 100, spellcheck: "false" });
  const newest = button("Newest", () => (list.scrollTop = list.scrollHeight));
  let contexts = "";
  /** The number of the last line that is in the list, and what the list was made with. */
  let last = 0;
  let made_with = "";
  let at_end = true;

  search.addEventListener("input", () => address.set({ find: search.value }));
  list.addEventListener("scroll", () => {
    at_end = list.scrollTop + list.clientHeight >= list.scrollHeight - 4;
    newest.disabled = at_end;
  });
  model.follow(["log", "reset"], context.redraw);
  address.follow((view) => {
    level.set(view.level as "info");
    if (search.value !== view.find) search.value = view.find;
    context.redraw();
  });

  function wanted(): (line: Log_line) => boolean {
    const worst = Math.max(0, levels.indexOf(address.get("level") as "info"));
    const place = address.get("context");
    const text = address.get("find").toLowerCase();
    return (line) => levels.indexOf(line.level) <= worst && (place === "" || line.context === place) && (text === "" || line.text.toLowerCase().includes(text));
  }

  function draw(): void {
    const known = [...new Set([...model.journal.log.map((line) => line.context), address.get("context")])].filter(Boolean).sort();
    if (known.join() !== contexts) {
      contexts = known.join();
      where.fill([["", "all"] as const, ...known.map((name) => [name, name] as const)]);
    }
    where.set(address.get("context"));
    const filter = `${address.get("level")} ${address.get("context")} ${address.get("find")}`;
    const newest_number = model.journal.log.at(-1)?.number ?? 0;
    if (filter !== made_with || newest_number < last) {
      list.replaceChildren();
      last = 0;
      made_with = filter;
      at_end = true;
    }
    if (newest_number > last) {
      const matches = wanted();
      const added = model.journal.log.filter((line) => line.number > last && matches(line)).slice(-lines_shown);
      list.append(...added.map((line) => make_line(line, address.get("find"))));
      while (list.childElementCount > lines_shown) list.firstElementChild!.remove();
      last = newest_number;
    }
    if (at_end) list.scrollTop = list.scrollHeight;
    const shown = list.childElementCount;
    set_text(count, `${shown === lines_shown ? `the last ${shown}` : shown} of ${model.journal.log.length} lines${model.journal.log_lost ? `, ${model.journal.log_lost} lost before they came here` : ""}`);
    set_attribute(list, "data-none", shown ? null : "");
  }

  const body = h("div", { class: "body" },
    h("div", { class: "filters" }, level.element, where.element, search, newest),
    list,
    count);
  return { id: "log", title: "Log", body, draw };
}

function make_line(line: Log_line, find: string): HTMLElement {
  return h("li", { "data-level": line.level },
    h("time", {}, clock_time(line.at, 3)),
    h("span", { class: "level" }, line.level),
    h("span", { class: "context" }, line.context),
    marked(line.text, find));
}

function marked(text: string, find: string): HTMLElement {
  const element = h("span", { class: "text" });
  const low = text.toLowerCase();
  const sought = find.toLowerCase();
  let at = 0;
  // Lower case can have another length, and then positions differ.
  if (sought && low.length === text.length) {
    for (let hit = low.indexOf(sought); hit >= 0; hit = low.indexOf(sought, at)) {
      element.append(text.slice(at, hit), h("mark", {}, text.slice(hit, hit + sought.length)));
      at = hit + sought.length;
    }
  }
  element.append(text.slice(at));
  return element;
}
