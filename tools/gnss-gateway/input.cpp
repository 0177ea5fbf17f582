#include "tools/gnss-gateway/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace gateway {
namespace {

/// Errors of open() and read() for a device that is not plugged in.
bool is_absence(int error) {
  return error == ENOENT || error == ENXIO || error == ENODEV || error == EIO;
}

constexpr std::array<speed_t, serial_rates.size()> speeds{
    B9600, B38400, B115200, B4800, B57600, B19200, B230400, B460800, B921600, B2400, B1200};

}  // namespace

Input::Input(const std::string& path, bool may_be_missing) : path_(path) {
  open();
  if (is_open()) {
    examine();
  } else if (!may_be_missing || !is_absence(errno)) {
    fail();
  }
}

Input::~Input() {
  close();
}

void Input::open() {
  descriptor_ = path_ == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                             : ::open(path_.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
}

void Input::examine() {
  struct stat status {};
  if (fstat(descriptor_, &status) != 0) fail();
  kind_ = S_ISREG(status.st_mode) ? Kind::recording : Kind::stream;
  serial_ = false;
  if (!S_ISCHR(status.st_mode)) return;
  const bool terminal = isatty(descriptor_) != 0;
  if (path_ == "-" && (!terminal || tcgetpgrp(descriptor_) >= 0)) return;  // the user's own
  kind_ = Kind::device;
  serial_ = terminal;
  if (!serial_) return;
  termios settings{};
  if (tcgetattr(descriptor_, &settings) != 0) fail();
  cfmakeraw(&settings);
  settings.c_iflag |= IGNBRK | IGNPAR;
  settings.c_cflag &= static_cast<tcflag_t>(~(CSTOPB | CRTSCTS | HUPCL));
  settings.c_cflag |= CREAD | CLOCAL;
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  if (tcsetattr(descriptor_, TCSANOW, &settings) != 0) fail();
}

std::optional<std::span<const std::byte>> Input::read() {
  ssize_t size = 0;
  do {
    size = ::read(descriptor_, buffer_.data(), buffer_.size());
  } while (size < 0 && errno == EINTR);
  if (size < 0 && errno == EAGAIN) return std::nullopt;
  if (size < 0 && kind_ == Kind::device && is_absence(errno)) size = 0;
  if (size < 0) fail();
  return std::span(buffer_).first(static_cast<std::size_t>(size));
}

void Input::rewind() {
  if (lseek(descriptor_, 0, SEEK_SET) != 0) fail();
}

void Input::set_rate(unsigned rate) {
  const auto* found = std::find(serial_rates.begin(), serial_rates.end(), rate);
  const speed_t speed = speeds.at(static_cast<std::size_t>(found - serial_rates.begin()));
  termios settings{};
  if (tcgetattr(descriptor_, &settings) == 0) {
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    // Bytes received at another rate are noise.
    if (tcsetattr(descriptor_, TCSANOW, &settings) == 0 && tcflush(descriptor_, TCIFLUSH) == 0) {
      return;
    }
  }
  if (!is_absence(errno)) fail();  // the next read reports the absence
}

std::optional<unsigned> Input::rate() const {
  termios settings{};
  if (tcgetattr(descriptor_, &settings) != 0) return std::nullopt;
  const auto* found = std::find(speeds.begin(), speeds.end(), cfgetispeed(&settings));
  if (found == speeds.end()) return std::nullopt;
  return serial_rates.at(static_cast<std::size_t>(found - speeds.begin()));
}

void Input::close() {
  if (is_open()) ::close(descriptor_);
  descriptor_ = -1;
}

bool Input::reopen() {
  close();
  open();
  if (!is_open()) {
    if (is_absence(errno) || errno == EACCES) return false;  // udev has yet to set its rights
    fail();
  }
  examine();
  return true;
}

void Input::fail() const {
  throw std::system_error(errno, std::generic_category(), "cannot read \"" + path_ + "\"");
}

}  // namespace gateway
