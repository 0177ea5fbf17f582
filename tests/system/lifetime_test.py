"""The application starts and stops again and again while notifications arrive, subscriptions come and go and
all four signals are sent at random moments. Each cycle ends with 0 in time and leaves no descriptor and no
thread. POS_LIFETIME_CYCLES says how often (3); run it long under the thread sanitizer."""

import os
import queue
import random
import signal
import threading
import time

from desk import BUILD, GATEWAY, POSCTL, Desk

HOST = BUILD / "tests/system/lifetime_host"
CYCLES = int(os.environ.get("POS_LIFETIME_CYCLES", "3"))
# 500 ms until the flag is seen, the stops, 1 s before the runtime goes; generous for sanitizers.
DEADLINE = 30.0


def main():
    dice = random.Random(os.environ.get("POS_LIFETIME_SEED", "1"))
    with Desk() as desk:
        desk.start(GATEWAY, "--rate", "100", "--time")
        stop = threading.Event()

        def come_and_go():
            while not stop.is_set():
                watch = desk.start(POSCTL, "watch", "--count", "20", "--timeout", "1")
                watch.communicate(timeout=DEADLINE)
                desk.running.remove((watch, watch.log))

        subscriber = threading.Thread(target=come_and_go, daemon=True)
        subscriber.start()

        host = desk.start(HOST, CYCLES)
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(line.split()) for line in host.stdout], daemon=True).start()
        seen = []
        for cycle in range(CYCLES):
            assert lines.get(timeout=DEADLINE) == ["start", str(cycle)]
            for _ in range(dice.randrange(20)):
                time.sleep(dice.random() * 0.02)  # a random moment
                host.send_signal(dice.choice([signal.SIGUSR1, signal.SIGUSR2]))
            ending = time.monotonic()
            end = None
            # A signal before the application exists is ignored, so it may take more than one.
            while end is None:
                assert time.monotonic() - ending < DEADLINE, f"cycle {cycle} hangs"
                host.send_signal(dice.choice([signal.SIGINT, signal.SIGTERM]))
                try:
                    end = lines.get(timeout=0.3)
                except queue.Empty:
                    pass
            assert end[:3] == ["end", str(cycle), "0"], end
            seen.append((int(end[3]), int(end[4])))
        stop.set()
        subscriber.join(timeout=DEADLINE)
        assert host.wait(timeout=DEADLINE) == 0, host.returncode
        # The first cycle brings what stays for good: log threads, the standard streams.
        assert max(seen[1:] or seen) <= seen[0] or len(set(seen[1:])) == 1, seen
        log = host.log.read_text(errors="replace")
        assert "ThreadSanitizer" not in log and "AddressSanitizer" not in log, log[-3000:]
        print(f"{CYCLES} cycles; descriptors and threads after the first {seen[0]}, after the last {seen[-1]}")


if __name__ == "__main__":
    main()
