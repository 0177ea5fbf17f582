/// A disk below the calls that a store makes. It remembers what was written and what was made
/// lasting, and can say in which states a power cut may leave a journalling file system: names
/// change in the order of the journal but as late as it likes, content that was not synced may be
/// missing, cut or zeros.
#pragma once

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/per/files.h"

namespace ara::per {

class Simulated_disk : public Files {
 public:
  /// Thrown by the call with which the power goes; no std::exception, so that nobody handles it.
  struct Power_cut {};
  /// What a crash leaves: file names and contents.
  using Image = std::map<std::string, std::string>;

  /// `before_call` is asked before each call with its number (from 0) and name: 0 lets it happen, a
  /// positive number is the errno with which it fails, short_write makes a read or write short,
  /// power_cut cuts the power.
  static constexpr int short_write = -1;
  static constexpr int power_cut = -2;
  using Before_call = std::function<int(int number, std::string_view name)>;

  explicit Simulated_disk(
      const Image& image, Before_call before_call = [](int, std::string_view) { return 0; })
      : before_call_(std::move(before_call)) {
    for (const auto& [path, text] : image)
      names_[path] = std::make_shared<Content>(Content{text, text, {}});
    name_steps_ = {names_};
  }

  [[nodiscard]] int calls() const { return calls_; }
  [[nodiscard]] std::size_t open_descriptors() const { return open_.size(); }
  /// What a program sees while the power is on.
  [[nodiscard]] Image now() const {
    Image image;
    for (const auto& [path, content] : names_)
      image[path] = content->now;
    return image;
  }
  [[nodiscard]] std::set<Image> after_power_cut() const {
    std::set<Image> images;
    for (const Names& names : name_steps_) {
      std::set<Image> of_these_names{Image{}};
      for (const auto& [path, content] : names) {
        std::set<Image> extended;
        for (Image image : of_these_names) {
          for (const std::string& text : content->after_power_cut()) {
            image[path] = text;
            extended.insert(image);
          }
        }
        of_these_names = std::move(extended);
      }
      images.merge(of_these_names);
    }
    return images;
  }

  int open(const std::string& path, int flags, mode_t /*mode*/) override {
    if (ask("open") < 0) return -1;
    std::shared_ptr<Content> content;  // none for a folder
    if ((flags & O_DIRECTORY) == 0) {
      if (!names_.contains(path)) {
        if ((flags & O_CREAT) == 0) return fail(ENOENT);
        names_[path] = std::make_shared<Content>();
        name_steps_.push_back(names_);
      }
      content = names_[path];
      if ((flags & O_TRUNC) != 0 && !content->now.empty()) content->become("");
    }
    open_[next_fd_] = Open_file{std::move(content)};
    return next_fd_++;
  }
  ssize_t read(int fd, char* buffer, std::size_t size) override {
    const int answer = ask("read");
    if (answer < 0) return -1;
    auto& file = open_.at(fd);
    size = std::min(answer > 0 ? 1 : size, file.content->now.size() - file.position);
    std::memcpy(buffer, file.content->now.data() + file.position, size);
    file.position += size;
    return static_cast<ssize_t>(size);
  }
  ssize_t write(int fd, const char* data, std::size_t size) override {
    const int answer = ask("write");
    if (answer < 0) return -1;
    if (answer > 0) size = (size + 1) / 2;
    auto& content = *open_.at(fd).content;
    content.become(content.now + std::string(data, size));
    return static_cast<ssize_t>(size);
  }
  int fstat(int fd, struct stat& status) override {
    if (ask("fstat") < 0) return -1;
    status.st_mode = S_IFREG;
    status.st_size = static_cast<off_t>(open_.at(fd).content->now.size());
    return 0;
  }
  int fsync(int fd) override {
    if (ask("fsync") < 0) return -1;
    if (const auto& content = open_.at(fd).content; content != nullptr) {
      content->durable = content->now;
      content->steps.clear();
    } else {
      name_steps_ = {names_};
    }
    return 0;
  }
  int close(int fd) override {
    const int answer = ask("close");
    open_.erase(fd);
    return answer < 0 ? -1 : 0;
  }
  int rename(const std::string& from, const std::string& to) override {
    if (ask("rename") < 0) return -1;
    names_[to] = names_.at(from);
    names_.erase(from);
    name_steps_.push_back(names_);
    return 0;
  }
  int unlink(const std::string& path) override {
    if (ask("unlink") < 0) return -1;
    if (names_.erase(path) == 0) return fail(ENOENT);
    name_steps_.push_back(names_);
    return 0;
  }

 private:
  struct Content {
    void become(std::string text) {
      now = std::move(text);
      steps.push_back(now);
    }
    /// Of what was not synced: all of it, a part of it, the right length without the bytes, the
    /// length of a part.
    [[nodiscard]] std::set<std::string> after_power_cut() const {
      std::set<std::string> texts{durable};
      for (const std::string& step : steps) {
        const auto half = step.substr(0, step.size() / 2);
        texts.insert({step, half, std::string(step.size(), '\0'),
                      half + std::string(step.size() - half.size(), '\0')});
      }
      return texts;
    }

    std::string durable;
    std::string now;
    std::vector<std::string> steps;  ///< contents between the two
  };
  using Names = std::map<std::string, std::shared_ptr<Content>>;
  struct Open_file {
    std::shared_ptr<Content> content;
    std::size_t position = 0;
  };

  static int fail(int error) {
    errno = error;
    return -1;
  }
  int ask(std::string_view name) {
    if (dead_) return fail(EIO);
    const int answer = before_call_(calls_++, name);
    dead_ = answer == power_cut;
    // Calls made while an object is destroyed must not throw; the program runs on without effect.
    if (dead_ && name != "close" && name != "unlink") throw Power_cut{};
    if (dead_ || answer > 0) return fail(dead_ ? EIO : answer);
    return answer == short_write ? 1 : 0;
  }

  Before_call before_call_;
  int calls_ = 0;
  bool dead_ = false;
  Names names_;
  std::vector<Names> name_steps_;  ///< what lasts, and after each change that was not synced
  std::map<int, Open_file> open_;
  int next_fd_ = 100;
};

}  // namespace ara::per
