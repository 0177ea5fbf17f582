/** The rate of notifications. */

import type { Notification } from "./feed";

/** Notifications a second over the last two seconds. */
export class Rate {
  private readonly times: number[] = [];
  private readonly counts: number[] = [];

  take(notification: Notification): void {
    this.times.push(notification.received * 1000);
    this.counts.push(Math.max(1, ...(notification.merged ?? []).map((one) => one.count)));
    while (this.times.length > 60 || this.times[this.times.length - 1]! - this.times[0]! > 2500) {
      this.times.shift();
      this.counts.shift();
    }
  }

  /** NaN until two notifications have come within the time. */
  value(now: number): number {
    const last = this.times[this.times.length - 1];
    const first = this.times[0];
    if (last === undefined || first === undefined || now - last > 2500) return 0;
    if (last === first) return NaN;
    const count = this.counts.reduce((sum, one) => sum + one, 0) - this.counts[0]!;
    return (1000 * count) / (last - first);
  }
}
