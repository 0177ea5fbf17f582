/// A disk below the calls that a store makes. It remembers what was written and what was made
/// lasting, and can say in which states a power cut may leave a journalling file system: names
/// change in the order of the journal but as late as it likes, content that was not synced may be
/// missing, cut or zeros.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/per/files.h"

namespace ara::per {

class SimulatedDisk : public Files {
 public:
  /// Thrown by the call with which the power goes; no std::exception, so that nobody handles it.
  struct PowerCut {};
  /// What a crash leaves: file names and contents.
  using Image = std::map<std::string, std::string>;

  /// `before_call` is asked before each call with its number (from 0) and name: 0 lets it happen, a
  /// positive number is the errno with which it fails, kShort makes a write short, kPowerCut cuts
  /// the power.
  static constexpr int kShort = -1;
  static constexpr int kPowerCut = -2;
  using BeforeCall = std::function<int(int number, const std::string& name)>;

  explicit SimulatedDisk(const Image& image, BeforeCall before_call = {});

  [[nodiscard]] std::set<Image> AfterPowerCut() const;
  [[nodiscard]] int calls() const { return calls_; }
  [[nodiscard]] int open_descriptors() const { return static_cast<int>(open_.size()); }
  /// What a program sees while the power is on.
  [[nodiscard]] Image Now() const;

  int Open(const std::string& path, int flags, mode_t mode) override;
  ssize_t Read(int fd, char* buffer, std::size_t size) override;
  ssize_t Write(int fd, const char* data, std::size_t size) override;
  int Fstat(int fd, struct stat& status) override;
  int Fsync(int fd) override;
  int Close(int fd) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Unlink(const std::string& path) override;

 private:
  struct Content {
    std::string durable;
    std::string now;
    /// Contents between the two, one after each write that was not synced.
    std::vector<std::string> steps;
  };
  using Names = std::map<std::string, std::shared_ptr<Content>>;
  struct OpenFile {
    std::shared_ptr<Content> content;  ///< null for a folder
    std::size_t position = 0;
  };

  int Ask(const char* name);
  void ChangeNames(const std::function<void(Names&)>& change);

  BeforeCall before_call_;
  int calls_ = 0;
  bool dead_ = false;
  Names names_;
  Names durable_names_;
  std::vector<Names> name_steps_;  ///< after each change of names that was not synced
  std::map<int, OpenFile> open_;
  int next_fd_ = 100;
};

}  // namespace ara::per
