// The selection programs as libbpf loads them from the skeleton built with this library.

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "host/selection/ListenerAddresses.h"
#include "host/selection/SelectionPrograms.h"
#include "host/selection/selection.skel.h"
#include "platform/Mutex.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {
namespace {

// libbpf writes its complaints through one process-wide callback. The first warning since
// load began says best why loading failed; the rest (verifier logs) stays out of the log.
class LibbpfWarnings {
 public:
  static LibbpfWarnings& shared() {
    static LibbpfWarnings warnings;
    return warnings;
  }
  void begin() {
    static std::once_flag installed;
    std::call_once(installed, [] { libbpf_set_print(&LibbpfWarnings::print); });
    MutexLock lock(mutex_);
    first_.clear();
  }
  std::string first() {
    MutexLock lock(mutex_);
    return first_;
  }

 private:
  static int print(libbpf_print_level level, const char* format, va_list args) {
    if (level != LIBBPF_WARN) return 0;
    std::array<char, 256> line;
    std::vsnprintf(line.data(), line.size(), format, args);
    std::string text(line.data());
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    MutexLock lock(shared().mutex_);
    if (shared().first_.empty()) shared().first_ = text;
    return 0;
  }

  Mutex mutex_;
  std::string first_ TW_GUARDED_BY(mutex_);
};

std::string failure(const char* step, int error) {
  std::string reason = std::string(step) + ": " + std::strerror(error);
  if (error == EPERM || error == EACCES) {
    reason += " (needs root: CAP_BPF, CAP_PERFMON and CAP_NET_ADMIN)";
  }
  const std::string detail = LibbpfWarnings::shared().first();
  return detail.empty() ? reason : reason + " [" + detail + "]";
}

class BpfSelectionPrograms final : public SelectionPrograms {
 public:
  explicit BpfSelectionPrograms(selection_bpf* skeleton) : skeleton_(skeleton) {}
  ~BpfSelectionPrograms() override {
    ring_buffer__free(ring_);
    for (bpf_link* link : links_) bpf_link__destroy(link);
    selection_bpf::destroy(skeleton_);
  }
  BpfSelectionPrograms(const BpfSelectionPrograms&) = delete;
  BpfSelectionPrograms& operator=(const BpfSelectionPrograms&) = delete;

  // Hands the kernel the listeners to steer to; false with `whyNot` set when it refuses one.
  bool holdListeners(const SelectionSettings& settings, std::string& whyNot) {
    const std::pair<__u32, int> listeners[] = {{TW_LISTENER_IPV4, settings.listener4},
                                               {TW_LISTENER_IPV6, settings.listener6}};
    for (const auto& [key, fd] : listeners) {
      const __u64 value = static_cast<__u64>(fd);
      if (fd >= 0 &&
          bpf_map_update_elem(bpf_map__fd(skeleton_->maps.listeners), &key, &value, BPF_ANY) != 0) {
        whyNot = failure("handing the listeners to the kernel", errno);
        return false;
      }
    }
    return true;
  }

  // Attaches every program; false with `whyNot` set when one cannot be.
  bool attach(int cgroupRoot, std::string& whyNot) {
    bpf_program* cgroupPrograms[] = {
        skeleton_->progs.tw_connect4,     skeleton_->progs.tw_connect6,
        skeleton_->progs.tw_sendmsg4,     skeleton_->progs.tw_sendmsg6,
        skeleton_->progs.tw_getpeername4, skeleton_->progs.tw_getpeername6,
        skeleton_->progs.tw_sockops};
    for (bpf_program* program : cgroupPrograms) {
      if (!keep(bpf_program__attach_cgroup(program, cgroupRoot), "attaching to the cgroup root",
                whyNot)) {
        return false;
      }
    }
    for (bpf_program* program :
         {skeleton_->progs.tw_fork, skeleton_->progs.tw_exec, skeleton_->progs.tw_exit}) {
      if (!keep(bpf_program__attach(program), "attaching to the scheduler's tracepoints", whyNot)) {
        return false;
      }
    }
    // The calling thread's network namespace, where the listeners are.
    const UniqueFd netns(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!netns) {
      whyNot = failure("opening the network namespace", errno);
      return false;
    }
    if (!keep(bpf_program__attach_netns(skeleton_->progs.tw_steer, netns.get()),
              "attaching to the network namespace's socket lookup", whyNot)) {
      return false;
    }
    ring_ = ring_buffer__new(bpf_map__fd(skeleton_->maps.events), &BpfSelectionPrograms::onEvent,
                             this, nullptr);
    if (!ring_) whyNot = failure("opening the event ring", errno);
    return ring_ != nullptr;
  }

  std::optional<CandidateEntry> find(std::int64_t pid) const override {
    const __u32 key = static_cast<__u32>(pid);
    tw_candidate value{};
    if (bpf_map_lookup_elem(candidatesFd(), &key, &value) != 0) return std::nullopt;
    return CandidateEntry{value.start_ticks, value.flags};
  }
  void store(std::int64_t pid, const CandidateEntry& entry) override {
    const __u32 key = static_cast<__u32>(pid);
    const tw_candidate value{entry.startTime, entry.flags, 0};
    bpf_map_update_elem(candidatesFd(), &key, &value, BPF_ANY);
  }
  void erase(std::int64_t pid) override {
    const __u32 key = static_cast<__u32>(pid);
    bpf_map_delete_elem(candidatesFd(), &key);
  }
  std::vector<std::pair<std::int64_t, CandidateEntry>> entries() const override {
    std::vector<std::pair<std::int64_t, CandidateEntry>> entries;
    __u32 key = 0;
    for (const void* previous = nullptr; bpf_map_get_next_key(candidatesFd(), previous, &key) == 0;
         previous = &key) {
      if (auto entry = find(key)) entries.emplace_back(key, *entry);
    }
    return entries;
  }
  void addWatchedExecutables(const ExecutableKeySet& keys) override {
    const __u8 present = 1;
    for (const ExecutableKey& key : keys) {
      const tw_exe_key kernelKey{key.device, key.inode};
      bpf_map_update_elem(watchedFd(), &kernelKey, &present, BPF_ANY);
    }
  }
  void retainWatchedExecutables(const ExecutableKeySet& keys) override {
    retainKeys<tw_exe_key>(watchedFd(), [&](const tw_exe_key& key) {
      return keys.contains({key.device, key.inode});
    });
  }
  void addWatchedPIDs(const std::unordered_set<std::int64_t>& pids) override {
    const __u8 present = 1;
    for (const std::int64_t pid : pids) {
      // A PID no process can have (0, negative, beyond 32 bits) never matches anyway.
      if (pid <= 0 || pid > INT32_MAX) continue;
      const auto key = static_cast<__u32>(pid);
      bpf_map_update_elem(watchedPidsFd(), &key, &present, BPF_ANY);
    }
  }
  void retainWatchedPIDs(const std::unordered_set<std::int64_t>& pids) override {
    retainKeys<__u32>(watchedPidsFd(), [&](__u32 pid) { return pids.contains(pid); });
  }

  bool addExcluded(const IpPrefix& prefix) override {
    const __u8 present = 1;
    const auto length = static_cast<__u32>(prefix.length);
    if (prefix.family == AF_INET) {
      tw_prefix4 key{length, {}};
      std::memcpy(key.addr, prefix.bytes.data(), sizeof key.addr);
      return bpf_map_update_elem(bpf_map__fd(skeleton_->maps.excluded4), &key, &present, BPF_ANY) ==
             0;
    }
    tw_prefix6 key{length, {}};
    std::memcpy(key.addr, prefix.bytes.data(), sizeof key.addr);
    return bpf_map_update_elem(bpf_map__fd(skeleton_->maps.excluded6), &key, &present, BPF_ANY) ==
           0;
  }

  std::optional<tw_socket_record> takeConnection(const tw_connection_key& key) override {
    tw_socket_record record{};
    if (bpf_map_lookup_and_delete_elem(bpf_map__fd(skeleton_->maps.connections), &key, &record) !=
        0) {
      return std::nullopt;
    }
    return record;
  }

  int eventsFd() const override { return ring_buffer__epoll_fd(ring_); }

  void drainEvents(const std::function<void(const tw_event&)>& handler) override {
    handler_ = &handler;
    ring_buffer__consume(ring_);
    handler_ = nullptr;
  }

  SelectionCounters counters() const override {
    const auto* values = skeleton_->bss->counters;
    return {__atomic_load_n(&values[TW_COUNTER_EVENTS_DROPPED], __ATOMIC_RELAXED),
            __atomic_load_n(&values[TW_COUNTER_RECORDS_FAILED], __ATOMIC_RELAXED),
            __atomic_load_n(&values[TW_COUNTER_CANDIDATES_LOST], __ATOMIC_RELAXED)};
  }

 private:
  static int onEvent(void* context, void* data, std::size_t size) {
    auto* self = static_cast<BpfSelectionPrograms*>(context);
    if (size < sizeof(tw_event) || !self->handler_) return 0;
    tw_event event;
    std::memcpy(&event, data, sizeof event);
    (*self->handler_)(event);
    return 0;
  }

  bool keep(bpf_link* link, const char* step, std::string& whyNot) {
    if (!link) {
      whyNot = failure(step, errno);
      return false;
    }
    links_.push_back(link);
    return true;
  }

  // Deletes every key of map `fd` that `keep` refuses.
  template <typename Key, typename Keep>
  static void retainKeys(int fd, const Keep& keep) {
    std::vector<Key> gone;
    Key key{};
    for (const void* previous = nullptr; bpf_map_get_next_key(fd, previous, &key) == 0;
         previous = &key) {
      if (!keep(key)) gone.push_back(key);
    }
    for (const Key& old : gone) bpf_map_delete_elem(fd, &old);
  }

  int candidatesFd() const { return bpf_map__fd(skeleton_->maps.candidates); }
  int watchedPidsFd() const { return bpf_map__fd(skeleton_->maps.watched_pids); }
  int watchedFd() const { return bpf_map__fd(skeleton_->maps.watched_exes); }

  selection_bpf* const skeleton_;
  std::vector<bpf_link*> links_;
  ring_buffer* ring_ = nullptr;
  // Set for the duration of drainEvents(), which runs on one thread at a time.
  const std::function<void(const tw_event&)>* handler_ = nullptr;
};

}  // namespace

std::unique_ptr<SelectionPrograms> loadSelectionPrograms(const SelectionSettings& settings,
                                                         std::string& whyNot) {
  LibbpfWarnings::shared().begin();
  selection_bpf* skeleton = selection_bpf::open();
  if (!skeleton) {
    whyNot = failure("opening the BPF object", errno);
    return nullptr;
  }
  skeleton->rodata->netns_cookie = settings.netnsCookie;
  skeleton->rodata->ns_per_tick = settings.nanosecondsPerTick;
  skeleton->rodata->own_pid = settings.ownPID;
  skeleton->rodata->listener_port = settings.listenerPort;
  skeleton->rodata->block_quic = settings.blockQuic ? 1 : 0;
  const std::size_t ports = std::min<std::size_t>(settings.ipv6Ports.size(), TW_IPV6_PORTS);
  std::copy_n(settings.ipv6Ports.begin(), ports, skeleton->rodata->ipv6_ports);
  skeleton->rodata->ipv6_port_count = static_cast<__u32>(ports);
  auto programs = std::make_unique<BpfSelectionPrograms>(skeleton);
  if (const int error = selection_bpf::load(skeleton); error != 0) {
    whyNot = failure("loading the BPF programs", -error);
    return nullptr;
  }
  if (!programs->holdListeners(settings, whyNot) || !programs->attach(settings.cgroupRoot, whyNot))
    return nullptr;
  return programs;
}

}  // namespace tarnwick::host
