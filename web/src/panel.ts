/** What a panel is, and what all panels share: the model, the address, the window of time, the cursor. */

import type { Action_wish } from "./feed";
import type { Address } from "./address";
import type { Model } from "./model";

export interface Panel {
  id: string;
  title: string;
  /** Controls in the line of the title. */
  tools?: readonly HTMLElement[];
  body: HTMLElement;
  /** Draws all that has changed. Called in an animation frame, while the panel is visible and after `redraw`. */
  draw(): void;
  /** Whether the panel has a place on this server's page; without it, always. Asked again with each hello. */
  is_wanted?(): boolean;
}

/** One moment that all plots point at. */
export class Cursor {
  /** Server time in ms; NaN: none. */
  t = NaN;
  private readonly listeners: (() => void)[] = [];

  set(t: number): void {
    if (Object.is(t, this.t)) return;
    this.t = t;
    for (const listener of this.listeners) listener();
  }

  follow(listener: () => void): void {
    this.listeners.push(listener);
  }
}

export interface Time_window {
  from: number;
  to: number;
  live: boolean;
}

export interface Context {
  model: Model;
  address: Address;
  cursor: Cursor;
  /** Seconds and end of what the plots and the track show. */
  time_window(): Time_window;
  /** Asks for a call of `draw`. */
  redraw(): void;
  /** Sends an action. Calls `told` once: with the answer, or with the reason why there is none. */
  act(action: Action_wish, told: (text: string, ok: boolean) => void): void;
  /** Reads a sentence to users of a screen reader. */
  announce(text: string): void;
}

/** Colours and type of the style sheet for what a canvas draws; read again when the system changes them. */
export class Palette {
  readonly root = getComputedStyle(document.documentElement);
  private known = new Map<string, string>();

  constructor(changed: () => void) {
    for (const query of ["(prefers-color-scheme: dark)", "(forced-colors: active)"]) {
      matchMedia(query).addEventListener("change", () => {
        this.known.clear();
        changed();
      });
    }
  }

  get(name: string): string {
    let value = this.known.get(name);
    if (value === undefined) {
      value = this.root.getPropertyValue(`--${name}`).trim();
      this.known.set(name, value);
    }
    return value;
  }

  /** Pixels of a rem. */
  get rem(): number {
    return parseFloat(this.root.fontSize);
  }

  font(rems: number, weight = 400): string {
    return `${weight} ${rems * this.rem}px ${this.get("font")}`;
  }
}

/** A canvas that has as many pixels as the screen has for it. */
export class Surface {
  readonly context: CanvasRenderingContext2D;
  width = 0;
  height = 0;

  constructor(readonly element: HTMLCanvasElement, resized: () => void) {
    this.context = element.getContext("2d", { alpha: false })!;
    new ResizeObserver(() => {
      const { clientWidth, clientHeight } = element;
      const ratio = Math.min(devicePixelRatio || 1, 3);
      this.width = clientWidth;
      this.height = clientHeight;
      element.width = Math.max(1, Math.round(clientWidth * ratio));
      element.height = Math.max(1, Math.round(clientHeight * ratio));
      this.context.setTransform(ratio, 0, 0, ratio, 0, 0);
      resized();
    }).observe(element);
  }
}
