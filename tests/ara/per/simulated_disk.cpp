#include "tests/ara/per/simulated_disk.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace ara::per {

SimulatedDisk::SimulatedDisk(const Image& image, BeforeCall before_call)
    : before_call_(std::move(before_call)) {
  for (const auto& [path, text] : image)
    names_[path] = std::make_shared<Content>(Content{text, text, {}});
  durable_names_ = names_;
}

int SimulatedDisk::Ask(const char* name) {
  if (dead_) {
    errno = EIO;
    return -1;
  }
  const int answer = before_call_ ? before_call_(calls_, name) : 0;
  ++calls_;
  if (answer == kPowerCut) {
    dead_ = true;
    // Calls made while an object is destroyed must not throw; the program runs on without effect.
    if (std::string_view(name) != "close" && std::string_view(name) != "unlink") throw PowerCut{};
    errno = EIO;
    return -1;
  }
  if (answer > 0) {
    errno = answer;
    return -1;
  }
  return answer == kShort ? 1 : 0;
}

void SimulatedDisk::ChangeNames(const std::function<void(Names&)>& change) {
  change(names_);
  name_steps_.push_back(names_);
}

int SimulatedDisk::Open(const std::string& path, int flags, mode_t /*mode*/) {
  if (Ask("open") < 0) return -1;
  std::shared_ptr<Content> content;
  if ((flags & O_DIRECTORY) == 0) {
    if (!names_.contains(path)) {
      if ((flags & O_CREAT) == 0) {
        errno = ENOENT;
        return -1;
      }
      ChangeNames([&](Names& names) { names[path] = std::make_shared<Content>(); });
    }
    content = names_[path];
    if ((flags & O_TRUNC) != 0 && !content->now.empty()) {
      content->now.clear();
      content->steps.emplace_back();
    }
  }
  open_[next_fd_] = OpenFile{std::move(content)};
  return next_fd_++;
}

ssize_t SimulatedDisk::Read(int fd, char* buffer, std::size_t size) {
  const int answer = Ask("read");
  if (answer < 0) return -1;
  auto& file = open_.at(fd);
  size = std::min(answer > 0 ? 1 : size, file.content->now.size() - file.position);
  std::memcpy(buffer, file.content->now.data() + file.position, size);
  file.position += size;
  return static_cast<ssize_t>(size);
}

ssize_t SimulatedDisk::Write(int fd, const char* data, std::size_t size) {
  const int answer = Ask("write");
  if (answer < 0) return -1;
  if (answer > 0) size = (size + 1) / 2;
  auto& content = *open_.at(fd).content;
  content.now.append(data, size);
  content.steps.push_back(content.now);
  return static_cast<ssize_t>(size);
}

int SimulatedDisk::Fstat(int fd, struct stat& status) {
  if (Ask("fstat") < 0) return -1;
  status.st_mode = S_IFREG;
  status.st_size = static_cast<off_t>(open_.at(fd).content->now.size());
  return 0;
}

int SimulatedDisk::Fsync(int fd) {
  if (Ask("fsync") < 0) return -1;
  if (const auto& content = open_.at(fd).content; content != nullptr) {
    content->durable = content->now;
    content->steps.clear();
  } else {
    durable_names_ = names_;
    name_steps_.clear();
  }
  return 0;
}

int SimulatedDisk::Close(int fd) {
  const int answer = Ask("close");
  open_.erase(fd);
  return answer < 0 ? -1 : 0;
}

int SimulatedDisk::Rename(const std::string& from, const std::string& to) {
  if (Ask("rename") < 0) return -1;
  ChangeNames([&](Names& names) {
    names[to] = names.at(from);
    names.erase(from);
  });
  return 0;
}

int SimulatedDisk::Unlink(const std::string& path) {
  if (Ask("unlink") < 0) return -1;
  if (!names_.contains(path)) {
    errno = ENOENT;
    return -1;
  }
  ChangeNames([&](Names& names) { names.erase(path); });
  return 0;
}

SimulatedDisk::Image SimulatedDisk::Now() const {
  Image image;
  for (const auto& [path, content] : names_)
    image[path] = content->now;
  return image;
}

std::set<SimulatedDisk::Image> SimulatedDisk::AfterPowerCut() const {
  std::vector<Names> all_names{durable_names_};
  all_names.insert(all_names.end(), name_steps_.begin(), name_steps_.end());
  std::set<Image> images;
  for (const Names& names : all_names) {
    std::set<Image> of_these_names{Image{}};
    for (const auto& [path, content] : names) {
      std::set<std::string> texts{content->durable};
      for (const std::string& step : content->steps) {
        // All of it, a part of it, the right length without the bytes, the length of a part.
        texts.insert(
            {step, step.substr(0, step.size() / 2), std::string(step.size(), '\0'),
             step.substr(0, step.size() / 2) + std::string(step.size() - step.size() / 2, '\0')});
      }
      std::set<Image> extended;
      for (const Image& image : of_these_names) {
        for (const std::string& text : texts) {
          Image with = image;
          with[path] = text;
          extended.insert(std::move(with));
        }
      }
      of_these_names = std::move(extended);
    }
    images.merge(of_these_names);
  }
  return images;
}

}  // namespace ara::per
