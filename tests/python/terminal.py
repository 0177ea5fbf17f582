"""A serial device without a cable, at whose other end a test plays the receiver."""

import os
import termios


class Terminal:
    """A serial device, as it is after a start: with echo and line editing. Its path is free again once
    it is plugged out."""

    def __init__(self, path):
        self.path = path
        self.receiver, self.device = os.openpty()
        os.set_blocking(self.receiver, False)
        path.symlink_to(os.ttyname(self.device))

    def plug_out(self):
        self.path.unlink()
        os.close(self.device)
        os.close(self.receiver)

    def is_raw(self):
        """Breaks and bytes with a wrong parity are not read."""
        input_flags, _, _, local_flags, *_ = termios.tcgetattr(self.device)
        return input_flags & termios.IGNBRK and input_flags & termios.IGNPAR and not local_flags & (
            termios.ECHO | termios.ICANON | termios.ISIG)

    def rate(self):
        return termios.tcgetattr(self.device)[4]

    def send(self, data):
        os.write(self.receiver, data)

    def echo(self):
        try:
            return os.read(self.receiver, 4096)
        except BlockingIOError:
            return b""
