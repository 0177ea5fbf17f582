/** Who offers, who subscribes, what counts: the network as the application and the page see it. */

import type { Offer, Subscriber } from "../feed";
import { h, keep_list, set_attribute, set_text, type Child } from "../dom";
import { clock_time, duration, grouped, no_value, short_service } from "../format";
import { glyph, set_glyph, type Tone } from "../glyph";
import type { Counter } from "../model";
import type { Context, Panel } from "../panel";

const rows_shown = 60;
const discovery_shown = 60;
/** Counters that stand still on a healthy network. */
const trouble = /^(dropped|refused|slow|sendFailed|sendWould|.*(Lost|Late|Displaced|Expired|TimedOut|Resynchronised|Restarts)$)/;

interface Row {
  key: string;
  tone: Tone;
  cells: readonly string[];
}

export function wire_panel(context: Context): Panel {
  const { model } = context;
  const used = table("Services that the application uses", ["Service", "Provider", "State"]);
  const provided = table("Services that the application offers", ["Service", "Subscriber", "State"]);
  const network = table("Offers on the network", ["Service", "Instance", "Version", "From"]);
  const counters = table("Counters that have changed", ["Counter", "Value", "Growth", "Last"]);
  const discovery = h("ol", { class: "events", tabindex: 0, "aria-label": "Discovery as it happens, the newest first" });
  const seen = table("Services that this page looks at", ["Service", "State"]);
  const way = h("p", { class: "caption" });
  const rest = h("p", { class: "caption" });

  model.follow(["peers", "offers", "offer", "statistics", "services", "events", "reset"], context.redraw);

  function draw(): void {
    fill(used, used_rows(), "The application uses no service, or has not said so yet.");
    const [rows, others] = provided_rows();
    fill(provided, rows, "No subscribers.");
    set_text(rest, others ? `and ${others} offered instances without a subscriber: data identifiers and monitors` : "");
    fill(network, network_rows(), "No offers seen.");
    fill(counters, counter_rows(), "None since this page was opened.");
    fill(seen, Object.entries(model.services ?? {}).map(([name, { present, text }]): Row =>
      ({ key: name, tone: present ? "good" : "off", cells: [name, present ? text || "there" : text || "not there"] })), "None yet.");
    set_text(way, model.hello ? `The server's way to the application: ${model.hello.way}.` : "");
    const lines = model.journal.events.filter((one) => one.lane === "offer").slice(-discovery_shown).reverse();
    keep_list(discovery, lines, (one) => String(one.number), (one) =>
      h("li", {}, h("time", {}, clock_time(one.at)), glyph(one.tone), h("span", {}, one.text)), () => undefined);
    set_attribute(discovery, "data-none", lines.length ? null : "");
  }

  function used_rows(): Row[] {
    return (model.peers?.consumed ?? []).flatMap((service) => {
      const name = short_service(service.service);
      const head: Row = {
        key: `${service.serviceId} ${service.instance}`,
        tone: service.found ? "good" : "bad",
        cells: [
          name,
          service.found ? endpoint(service) : "not found",
          service.found ? `for ${duration((service.sinceMs ?? NaN) / 1000)}, offer valid ${service.ttlLeftMs === null ? "without end" : `${duration(service.ttlLeftMs / 1000)} more`}` : service.cause,
        ],
      };
      const groups = service.eventGroups.map((group): Row => ({
        key: `${service.serviceId} ${service.instance} ${group.eventGroup}`,
        tone: group.cause ? "bad" : group.subscribed ? "good" : "note",
        cells: [
          `${name} · event group ${Number(group.eventGroup)}`,
          group.subscribed ? "subscribed" : "not subscribed",
          group.cause || (group.lastNotificationMs === null ? "no notification yet" : `last notification ${duration(group.lastNotificationMs / 1000)} ago`),
        ],
      }));
      return [head, ...groups];
    });
  }

  function provided_rows(): [Row[], number] {
    // A peer that subscribes to every monitor has one row.
    const groups = new Map<string, { name: string; first: Subscriber; instances: number; sent: number }>();
    const rows: Row[] = [];
    let others = 0;
    const add = (name: string, one: Subscriber) => {
      const key = `${name} ${one.eventGroup} ${one.address} ${one.udpPort} ${one.tcpPort} ${one.subscribed} ${one.cause}`;
      const group = groups.get(key);
      if (group) {
        ++group.instances;
        group.sent += one.sent;
      } else groups.set(key, { name, first: one, instances: 1, sent: one.sent });
    };
    for (const service of model.peers?.offered ?? []) {
      const name = short_service(service.service);
      if (service.subscribers.length > 0) for (const one of service.subscribers) add(name, one);
      else if (name === "Positioning") rows.push({ key: name, tone: "off", cells: [name, "none", ""] });
      else ++others;
    }
    for (const one of model.peers?.otherSubscribers ?? []) add(one.serviceId, one);
    for (const [key, { name, first, instances, sent }] of groups) {
      rows.push({
        key,
        tone: first.subscribed ? "good" : "bad",
        cells: [
          `${name} · ${instances > 1 ? `${instances} instances` : `event group ${Number(first.eventGroup)}`}`,
          endpoint(first),
          first.subscribed ? `for ${duration((first.sinceMs ?? NaN) / 1000)}, ${grouped(sent)} sent` : `refused ${first.refused} times: ${first.cause}`,
        ],
      });
    }
    return [rows, others];
  }

  function network_rows(): Row[] {
    const groups = new Map<string, { first: Offer; instances: number }>();
    for (const offer of model.offers.values()) {
      const key = `${offer.serviceId} ${offer.majorVersion} ${offer.from}`;
      const group = groups.get(key);
      if (group) ++group.instances;
      else groups.set(key, { first: offer, instances: 1 });
    }
    return [...groups].map(([key, { first, instances }]) => {
      const other_version = first.manifestMajorVersion !== undefined && first.manifestMajorVersion !== first.majorVersion;
      return {
        key,
        tone: other_version ? "warn" : first.service ? "good" : "off",
        cells: [
          first.service ? short_service(first.service).replace(/^DataIdentifier_/, "") : `${first.serviceId}, not in the manifest`,
          instances > 1 ? `${instances} instances` : first.instance,
          `${first.majorVersion}.${first.minorVersion}${other_version ? `, manifest ${first.manifestMajorVersion}` : ""}`,
          first.from,
        ],
      };
    });
  }

  function counter_rows(): Row[] {
    const now = model.now();
    const bad = ([name, counter]: [string, Counter]) => Number(trouble.test(name) && counter.value > 0);
    return [...model.counters]
      .filter(([name, counter]) => counter.grown > 0 || (trouble.test(name) && counter.value > 0))
      .sort((a, b) => bad(b) - bad(a) || a[0].localeCompare(b[0]))
      .map(([name, counter]) => ({
        key: name,
        tone: trouble.test(name) ? "warn" : "off",
        cells: [name, grouped(counter.value), counter.grown ? `+${grouped(counter.grown)}` : "", counter.changed ? `${duration((now - counter.changed) / 1000)} ago` : no_value],
      }));
  }

  const body = h("div", { class: "body" },
    block("uses", "Uses", used.element),
    block("offers", "Offers", provided.element, rest),
    block("counters", "Counters that have changed", counters.element),
    block("network", "On the network", network.element),
    block("seen", "Seen by this page", seen.element, way),
    block("discovery", "Discovery", discovery));
  return { id: "wire", title: "Wire", body, draw };
}

function block(name: string, title: string, ...children: Child[]): HTMLElement {
  return h("div", { class: `block ${name}` }, h("h3", {}, title), ...children);
}

interface Table {
  element: HTMLElement;
  rows: HTMLElement;
  nothing: HTMLElement;
  columns: readonly string[];
}

function table(caption: string, columns: readonly string[]): Table {
  const rows = h("tbody");
  const nothing = h("p", { class: "caption" });
  const element = h("div", { class: "table", tabindex: 0, role: "group", "aria-label": caption },
    h("table", {},
      h("thead", { class: "unseen" }, h("tr", {}, ...columns.map((text) => h("th", { scope: "col" }, text)))),
      rows),
    nothing);
  return { element, rows, nothing, columns };
}

function fill(table: Table, rows: readonly Row[], nothing: string): void {
  const more = rows.length - rows_shown;
  set_text(table.nothing, rows.length === 0 ? nothing : more > 0 ? `and ${more} more` : "");
  table.nothing.hidden = rows.length > 0 && more <= 0;
  keep_list(table.rows, rows.slice(0, rows_shown), (row) => row.key,
    (row) => h("tr", {}, ...row.cells.map((_, i) => (i === 0 ? h("th", { scope: "row" }, glyph(row.tone), h("span")) : h("td", { "data-column": table.columns[i] })))),
    (element, row) => {
      const [first, ...others] = element.children;
      set_glyph(first!.firstElementChild as SVGSVGElement, row.tone);
      set_text(first!.lastElementChild!, row.cells[0]!);
      others.forEach((cell, i) => set_text(cell, row.cells[i + 1] ?? ""));
    });
}

function endpoint(one: { address: string; udpPort: number; tcpPort: number }): string {
  return `${one.address}${one.udpPort ? ` udp ${one.udpPort}` : ""}${one.tcpPort ? ` tcp ${one.tcpPort}` : ""}`;
}
