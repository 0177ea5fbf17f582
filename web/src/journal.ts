/** Events and log lines, live ones and those of the server's history, in bounded memory. */

import type { Application, Log_lines, Topics } from "./feed";
import { group_word, label_of, sentence, short_service, status_word } from "./format";
import type { Tone } from "./glyph";
import type { Any_frame } from "./source";

const events_kept = 500;
const log_kept = 3000;

/** Topics of which the server keeps the past. */
const event_topics = new Set<keyof Topics>(["application", "log", "change", "fault", "monitor", "component", "offer"]);

export type Lane = "status" | "monitor" | "fault" | "component" | "application" | "offer";
export interface Event_line {
  number: number;
  at: number;
  lane: Lane;
  tone: Tone;
  text: string;
}
export interface Log_line {
  number: number;
  at: number;
  level: Log_lines["lines"][number]["level"];
  context: string;
  text: string;
}

export class Journal {
  readonly events: Event_line[] = [];
  readonly log: Log_line[] = [];
  log_lost = 0;

  /** The application as the last event has it; a snapshot repeats it. */
  private known_application: Application | undefined;
  private readonly seen = new Map<string, number>();
  private numbers = 0;

  /** Keeps the frame if it is a line or a report. Returns whether there is a new event. */
  take(frame: Any_frame): boolean {
    const { topic, at } = frame;
    if (!event_topics.has(topic)) return false;
    // After a reconnection the history repeats what is known.
    if (at <= (this.seen.get(topic) ?? -Infinity)) return false;
    this.seen.set(topic, at);
    switch (topic) {
      case "application": {
        const before = this.known_application;
        const { present, started, text } = frame.data;
        this.known_application = frame.data;
        const restarted = present && before?.started !== undefined && started !== undefined && before.started !== started;
        if (!before || (before.present === present && !restarted)) return false;
        const words = present ? (restarted ? "The application has restarted" : "The application is there") : "The application is gone";
        this.add_event(at, "application", present ? "good" : "bad", sentence(present || !text ? words : `${words}: ${text}`));
        return true;
      }
      case "log":
        this.log_lost += frame.data.lost;
        for (const line of frame.data.lines) {
          this.log.push({ number: ++this.numbers, at: line.at, level: line.level, context: line.context, text: line.text });
        }
        if (this.log.length > log_kept + 500) this.log.splice(0, this.log.length - log_kept);
        return false;
      case "change": {
        const { name, group, status, meaning } = frame.data;
        const tone = status === "Nominal" ? "good" : status === "Error" ? "bad" : "off";
        this.add_event(at, "status", tone, `${label_of(name)} (${group_word(group)}): ${status_word(status)}. ${sentence(meaning)}`);
        return true;
      }
      case "fault":
        this.add_event(at, "fault", frame.data.present ? "bad" : "good", frame.data.text);
        return true;
      case "monitor":
        this.add_event(at, "monitor", /fail/i.test(frame.data.action) ? "bad" : "good", `${frame.data.name}: ${frame.data.action}`);
        return true;
      case "component":
        if (frame.data.state === undefined) return false;
        this.add_event(at, "component", "note", `Component state ${frame.data.state}`);
        return true;
      case "offer": {
        const { event, from, service, serviceId, instance } = frame.data;
        const gone = event === "withdrawn" || event === "expired";
        this.add_event(at, "offer", gone ? "off" : "note", `${short_service(service ?? serviceId)} ${instance} ${event} by ${from}`);
        return true;
      }
      default:
        return false;
    }
  }

  private add_event(at: number, lane: Lane, tone: Tone, text: string): void {
    this.events.push({ number: ++this.numbers, at, lane, tone, text });
    if (this.events.length > events_kept + 100) this.events.splice(0, this.events.length - events_kept);
  }

  clear(): void {
    this.events.length = this.log.length = this.log_lost = 0;
    this.seen.clear();
    this.known_application = undefined;
  }
}
