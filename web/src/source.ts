/** Where frames come from: the live server, or later a recording. The page knows nothing else of it. */

import type { Action, Frame, Topics } from "./feed";

export type Any_frame = { [T in keyof Topics]: Frame<T> }[keyof Topics];

export interface Connection {
  state: "connecting" | "open" | "lost";
  /** Local Unix time in ms of the change. */
  since: number;
  /** Lost: local Unix time in ms of the next attempt. */
  retry_at?: number;
}

/** Takes what a source delivers, one call at a time. */
export interface Sink {
  frame(frame: Any_frame): void;
  connection_changed(connection: Connection): void;
}

export interface Source {
  start(sink: Sink): void;
  /** Connects now instead of at the end of the pause. */
  retry(): void;
  /** Returns whether the source could take the action. */
  act(action: Action): boolean;
}

/** An address beside the page, with the token that the page was opened with. */
export function beside(name: string): URL {
  const url = new URL(name, location.href);
  const token = new URLSearchParams(location.search).get("token");
  url.search = token === null ? "" : new URLSearchParams({ token }).toString();
  url.hash = "";
  return url;
}
