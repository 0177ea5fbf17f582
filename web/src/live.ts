/** The live source: a WebSocket that comes back by itself. */

import type { Action } from "./feed";
import { beside, type Any_frame, type Connection, type Sink, type Source } from "./source";

const first_pause_ms = 500;
const longest_pause_ms = 8000;
/** The server sends a frame each second. Longer silence means that it hangs or that the network is gone. */
const silence_ms = 6000;

export class Live_source implements Source {
  private sink: Sink | undefined;
  private socket: WebSocket | undefined;
  private pause_ms = first_pause_ms;
  private timer = 0;
  private watchdog = 0;

  start(sink: Sink): void {
    this.sink = sink;
    this.connect();
    addEventListener("online", () => this.retry());
    document.addEventListener("visibilitychange", () => {
      if (!document.hidden) this.retry();
    });
  }

  retry(): void {
    if (this.socket) return;
    this.pause_ms = first_pause_ms;
    this.connect();
  }

  act(action: Action): boolean {
    if (this.socket?.readyState !== WebSocket.OPEN) return false;
    this.socket.send(JSON.stringify(action));
    return true;
  }

  private connect(): void {
    clearTimeout(this.timer);
    const url = beside("feed");
    url.protocol = url.protocol === "https:" ? "wss:" : "ws:";
    const socket = new WebSocket(url);
    this.socket = socket;
    this.report({ state: "connecting", since: Date.now() });
    this.watch(socket);
    socket.onopen = () => {
      this.pause_ms = first_pause_ms;
      this.report({ state: "open", since: Date.now() });
      this.watch(socket);
    };
    socket.onmessage = (message) => {
      this.watch(socket);
      const frame: unknown = JSON.parse(String(message.data));
      if (is_frame(frame)) this.sink?.frame(frame);
    };
    socket.onclose = () => this.lose(socket);
  }

  private watch(socket: WebSocket): void {
    clearTimeout(this.watchdog);
    this.watchdog = setTimeout(() => {
      // A dead peer answers no close either, so nothing waits for onclose.
      this.lose(socket);
      socket.close();
    }, silence_ms);
  }

  private lose(socket: WebSocket): void {
    if (this.socket !== socket) return;
    this.socket = undefined;
    socket.onmessage = socket.onopen = null;
    clearTimeout(this.watchdog);
    const pause = this.pause_ms * (0.8 + 0.4 * Math.random());
    this.pause_ms = Math.min(2 * this.pause_ms, longest_pause_ms);
    this.timer = setTimeout(() => this.connect(), pause);
    this.report({ state: "lost", since: Date.now(), retry_at: Date.now() + pause });
  }

  private report(connection: Connection): void {
    this.sink?.connection_changed(connection);
  }
}

function is_frame(value: unknown): value is Any_frame {
  return typeof value === "object" && value !== null && "topic" in value && "at" in value && "data" in value;
}
