/** The view's state in the address, behind the #, so that a view can be sent to a colleague. Defaults do not stand there. */

export const defaults = {
  /** The panel that fills the window; empty: all. */
  only: "",
  /** Seconds that the time plots and the track show. */
  span: "600",
  /** Unix time in ms of the end of what is shown; empty: now. */
  end: "",
  /** Colour of the track: plain, ago, speed, age. */
  color: "plain",
  /** Where the track's middle is, "LAT,LON"; empty: it follows the vehicle. */
  center: "",
  /** Metres a CSS pixel. */
  scale: "",
  /** Least level, context and search text of the log. */
  level: "info",
  context: "",
  find: "",
};
export type View = typeof defaults;
export type Key = keyof View;

export class Address {
  private view: View = { ...defaults };
  private readonly listeners: ((view: View) => void)[] = [];
  private timer = 0;

  constructor() {
    this.read();
    addEventListener("hashchange", () => {
      this.read();
      this.tell();
    });
  }

  get<K extends Key>(key: K): string {
    return this.view[key];
  }

  /** The value as a number within bounds, or the default. */
  number(key: Key, least: number, most: number): number {
    const value = this.view[key] === "" ? NaN : Number(this.view[key]);
    return value >= least && value <= most ? value : Number(defaults[key] === "" ? NaN : defaults[key]);
  }

  set(change: Partial<View>): void {
    if ((Object.keys(change) as Key[]).every((key) => this.view[key] === change[key])) return;
    Object.assign(this.view, change);
    this.tell();
    // Browsers limit how often an address changes; a drag of the track changes it at each frame.
    this.timer ||= setTimeout(() => {
      this.timer = 0;
      history.replaceState(null, "", this.text() || location.pathname + location.search);
    }, 250);
  }

  /** Called now and at each change. */
  follow(listener: (view: View) => void): void {
    this.listeners.push(listener);
    listener(this.view);
  }

  private text(): string {
    const entries = (Object.keys(defaults) as Key[]).filter((key) => this.view[key] !== defaults[key]);
    if (entries.length === 0) return "";
    return `#${new URLSearchParams(entries.map((key) => [key, this.view[key]])).toString()}`;
  }

  private read(): void {
    const parameters = new URLSearchParams(location.hash.slice(1));
    for (const key of Object.keys(defaults) as Key[]) {
      this.view[key] = (parameters.get(key) ?? defaults[key]).slice(0, 200);
    }
  }

  private tell(): void {
    for (const listener of this.listeners) listener(this.view);
  }
}
