#include "player.h"

#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "clip.h"
#include "clock.h"
#include "format.h"
#include "hook.h"
#include "messages.h"
#include "playerstate.h"

namespace {

constexpr int kBlocksPerSecond = 50;  // A block of samples is also the length of a fade.
constexpr int kBlocksAtOnce = 50;     // At most in one step, even if the sink has room for more.

// Milliseconds between steps.
constexpr int kTick = 20;      // While there is sound.
constexpr int kLockRetry = 5;  // While another process holds the lock.
constexpr int kIdleTick = 1000;
constexpr int kUnwatchedTick = 100;

// Seconds.
constexpr double kStatusInterval = 0.05;  // While there is sound.
constexpr double kSlowInterval = 1;       // Between two looks at things that seldom change.
constexpr double kHold = 1;               // To wait for the next piece of a more urgent message.
constexpr double kEndDelay = 2;           // From the last sound to the end command.

constexpr int64_t kAny = int64_t{kLeastUrgent} + 1;

// A piece that is being played.
struct Playing {
  Piece piece;
  std::unique_ptr<Clip> clip;
  uint64_t samples = 0;  // Read from the clip.
  bool is_announced = false;
  bool is_at_end = false;
};

void Print(const std::string& line_) {
  puts(line_.c_str());
  fflush(stdout);
}

void Fade(std::vector<int16_t>& samples_) {
  const int count = static_cast<int>(samples_.size());
  for (int i = 0; i < count; ++i) {
    int16_t& sample = samples_[static_cast<size_t>(i)];
    sample = static_cast<int16_t>(sample * (count - 1 - i) / count);
  }
}

}  // namespace

struct Player::Impl {
  Impl(const PlayerOptions& options_, Queue& queue_, Urgency& urgency_, Sink& sink_)
      : options(options_),
        queue(queue_),
        urgency(urgency_),
        sink(sink_),
        messages(options.rate, Print) {
    state.device = options.device;
    state.rate = options.rate;
    state.pid = getpid();
  }

  int Step();
  void Refresh();
  void MakeRoom();
  int Pump();
  bool Produce();
  void Interrupt();
  void Read();
  bool StartNext();
  std::optional<Playing> TakeBest(int64_t limit_);
  const Piece* Best() const;
  void Finish();
  void OpenSink();
  void LoseSink(const std::string& reason_);
  void EndSound();
  void Report(const std::string& problem_);
  void WriteState();

  // True if nothing is being played or waits for the sink.
  bool IsSilent() const { return !playing && pending_at == pending.size(); }
  int UrgencyOf(const Piece& piece_) const { return urgency.Of(piece_.parts.id); }

  const PlayerOptions options;
  Queue& queue;
  Urgency& urgency;
  Sink& sink;
  Messages messages;
  std::optional<Playing> playing;
  std::vector<int16_t> pending;  // Samples for the sink.
  size_t pending_at = 0;         // Samples before this index are written.
  double now = 0;
  double next_status = 0;
  double next_look = 0;
  bool is_current = false;  // The queue is up to date.
  bool is_locked = false;   // The last piece could not be taken because of the lock.
  bool is_open = false;     // The sink.
  double next_open = 0;
  bool needs_tail = false;
  bool is_sounding = false;  // Between the begin and the end command.
  double last_sound = 0;
  int last_urgency = kLeastUrgent;  // Of the piece that was played last.
  int moved_at = -2;                // The counter of the status after which a file was moved aside.
  bool is_done = false;
  PlayerState state;
  uint64_t state_version = 0;  // Of the queue.
  bool is_state_old = true;
};

// --- Configuration, status and queue ---

// Reads configuration and status and checks the sink when that is due, and updates the queue.
void Player::Impl::Refresh() {
  if (now >= next_look) {
    next_look = now + kSlowInterval;
    try {
      urgency.ReadConfiguration();
    } catch (const std::string& why) {
      Report(why);
    }
    try {
      if (is_open) {
        sink.Check();
      }
    } catch (const DeviceLost& lost) {
      LoseSink(lost.reason);
    }
  }
  is_current = queue.Update();
  const bool is_busy = is_open && (playing || !queue.Waiting().empty());
  if (now >= next_status && (is_busy || !messages.IsEmpty())) {
    next_status = now + (is_busy ? kStatusInterval : kSlowInterval);
    urgency.ReadStatus();
    if (urgency.IsStopped()) {
      queue.RemoveMovedAside();
    }
    if (is_current) {
      MakeRoom();
    }
  }
}

// If the directory is full, moves a file aside, so that the daemon can make a more urgent one.
void Player::Impl::MakeRoom() {
  const int active = urgency.MostUrgentActive();
  // The daemon may have looked at the directory shortly before the last move, so its next status
  // does not count yet.
  const int statuses = urgency.Timestamp() - moved_at;
  if (!urgency.IsOutputBound() || (statuses >= 0 && statuses < 2)) {
    return;
  }
  for (const std::string& id : queue.OtherIds()) {
    if (urgency.Of(id) <= active) {
      return;
    }
  }
  const Piece* last = nullptr;
  for (const Piece& piece : queue.Waiting()) {
    if (UrgencyOf(piece) <= active) {
      return;
    }
    if (!piece.IsHidden() && (last == nullptr || UrgencyOf(piece) >= UrgencyOf(*last))) {
      last = &piece;
    }
  }
  if (last != nullptr && queue.MoveAside(*last) == Queue::Result::kDone) {
    moved_at = urgency.Timestamp();
  }
}

// --- Sound ---

const Piece* Player::Impl::Best() const {
  const Piece* best = nullptr;
  for (const Piece& piece : queue.Waiting()) {
    if (best == nullptr || UrgencyOf(piece) < UrgencyOf(*best)) {
      best = &piece;
    }
  }
  return best;
}

// Takes the most urgent piece, if it is more urgent than limit_.
std::optional<Playing> Player::Impl::TakeBest(int64_t limit_) {
  const Piece* best = nullptr;
  is_locked = false;
  while ((best = Best()) != nullptr && UrgencyOf(*best) < limit_) {
    Playing next;
    const Queue::Result result = queue.Take(*best, next.piece);
    is_locked = result == Queue::Result::kLocked;
    if (is_locked) {
      break;
    }
    if (result == Queue::Result::kGone) {
      continue;
    }
    try {
      next.clip = OpenClip(queue.PathOf(next.piece), options.rate);
      return next;
    } catch (const std::string& why) {
      Report("cannot read the sound of " + next.piece.name + ": " + why);
      queue.Remove(next.piece);
    }
  }
  return std::nullopt;
}

// Starts the most urgent piece. False if there is none, or it has to wait.
bool Player::Impl::StartNext() {
  const Piece* const best = Best();
  if (best == nullptr) {
    is_locked = false;
    return false;
  }
  // The next piece of the more urgent message would only interrupt a less urgent piece.
  const bool more_comes = urgency.MostUrgentActive() <= last_urgency;
  if (UrgencyOf(*best) > last_urgency && more_comes && now - last_sound < kHold) {
    return false;
  }
  if (!is_sounding) {
    is_sounding = true;
    const std::string why = options.begin.empty() ? "" : RunHook(options.begin);
    if (!why.empty()) {
      Report("--begin: " + why);
    }
    queue.Update();
  }
  playing = TakeBest(kAny);
  return playing.has_value();
}

// Fades out the present piece if a more urgent one waits. It is played again later from its start.
void Player::Impl::Interrupt() {
  std::optional<Playing> next = TakeBest(UrgencyOf(playing->piece));
  if (!next) {
    return;
  }
  Read();
  if (playing->is_at_end) {
    queue.PutBack(next->piece);  // The last few samples are played first.
    return;
  }
  Fade(pending);
  messages.Interrupted(playing->piece.parts);
  queue.PutBack(playing->piece);
  playing = std::move(next);
}

// Reads the next block of the present piece into pending.
void Player::Impl::Read() {
  const auto block = static_cast<size_t>(options.rate / kBlocksPerSecond);
  pending.resize(block);
  pending.resize(playing->clip->Read(pending.data(), block));
  playing->samples += pending.size();
  playing->is_at_end = pending.size() < block;
}

void Player::Impl::Finish() {
  messages.Played(playing->piece.parts, playing->samples, now);
  queue.Remove(playing->piece);
  last_urgency = UrgencyOf(playing->piece);
  playing.reset();
}

// Fills pending with the next samples for the sink. False if there are none. A piece ends when the
// sink has its last samples.
bool Player::Impl::Produce() {
  pending_at = 0;
  pending.clear();
  while (pending.empty()) {
    if (playing && playing->is_at_end) {
      Finish();
    }
    if (playing && playing->is_announced && !options.after_piece) {
      Interrupt();
    }
    if (pending.empty() && !(playing && playing->is_at_end)) {
      if (!playing && !StartNext()) {
        break;
      }
      if (!playing->is_announced && options.is_verbose) {
        Print("playing " + playing->piece.name);
      }
      playing->is_announced = true;
      Read();
    }
  }
  if (pending.empty()) {
    pending.resize(needs_tail ? sink.Tail() : 0);
    needs_tail = false;
    return !pending.empty();
  }
  for (int16_t& sample : pending) {
    sample = static_cast<int16_t>(sample * options.volume / 100);
  }
  last_sound = now;
  needs_tail = true;
  return true;
}

// Passes samples to the sink while it takes some. Returns the milliseconds to wait.
int Player::Impl::Pump() {
  try {
    for (int block = 0; block < kBlocksAtOnce; ++block) {
      if (pending_at == pending.size() && !Produce()) {
        return queue.Waiting().empty() ? kIdleTick : kTick;
      }
      const size_t count = sink.Write(pending.data() + pending_at, pending.size() - pending_at);
      pending_at += count;
      if (count == 0) {
        return kTick;
      }
    }
    return 0;
  } catch (const DeviceLost& lost) {
    LoseSink(lost.reason);
    return kIdleTick;
  }
}

// --- The sink ---

// Tries once a second.
void Player::Impl::OpenSink() {
  if (is_open || now < next_open) {
    return;
  }
  try {
    sink.Open();
    is_open = true;
  } catch (const DeviceLost& lost) {
    LoseSink(lost.reason);
    return;
  }
  if (!state.device_ok) {
    fprintf(stderr, "player: the sound device is back\n");
    state.device_ok = true;
    is_state_old = true;
  }
}

// Lets the present piece wait for the device, to be played again: nobody knows how much of it was
// heard.
void Player::Impl::LoseSink(const std::string& reason_) {
  is_open = false;
  is_locked = false;
  next_open = now + kSlowInterval;
  pending.clear();
  pending_at = 0;
  if (playing) {
    messages.Interrupted(playing->piece.parts);
    queue.PutBack(playing->piece);
    playing.reset();
  }
  if (state.device_ok) {
    state.device_ok = false;
    Report(reason_);
  }
}

// Runs the end command some time after the last sound.
void Player::Impl::EndSound() {
  if (is_sounding) {
    is_sounding = false;
    const std::string why = options.end.empty() ? "" : RunHook(options.end);
    if (!why.empty()) {
      Report("--end: " + why);
    }
  }
}

// --- Reports and state file ---

void Player::Impl::Report(const std::string& problem_) {
  fprintf(stderr, "player: %s\n", problem_.c_str());
  state.problem = problem_;
  state.problem_time = time(nullptr);
  is_state_old = true;
}

void Player::Impl::WriteState() {
  const std::string name = playing ? playing->piece.name : "";
  if (state.since == 0 || name != state.playing) {
    state.playing = name;
    state.since = time(nullptr);
    is_state_old = true;
  }
  if (options.state_path.empty() || (!is_state_old && queue.Version() == state_version)) {
    return;
  }
  is_state_old = false;
  state_version = queue.Version();
  std::list<Piece> waiting = queue.Waiting();
  waiting.sort([&](const Piece& a_, const Piece& b_) { return UrgencyOf(a_) < UrgencyOf(b_); });
  state.waiting.clear();
  for (const Piece& piece : waiting) {
    state.waiting.push_back(piece.name);
  }
  try {
    WritePlayerState(options.state_path, state);
  } catch (const std::string& why) {
    if (why != state.problem) {
      Report(why);
    }
    is_state_old = false;
  }
}

int Player::Impl::Step() {
  now = Now();
  OpenSink();
  Refresh();
  int wait = is_open ? Pump() : kIdleTick;
  messages.EndSilent(now, [&](const std::string& id_) {
    const auto& waiting = queue.Waiting();
    return (playing && playing->piece.parts.id == id_) || urgency.IsActive(id_) ||
           std::any_of(waiting.begin(), waiting.end(),
                       [&](const Piece& piece_) { return piece_.parts.id == id_; });
  });
  if (IsSilent() && now - last_sound > kEndDelay) {
    EndSound();
  }
  if (options.until_empty && is_current && IsSilent() && queue.Waiting().empty()) {
    if (is_open) {
      sink.Drain();
    }
    messages.EndAll();
    is_done = true;
  }
  WriteState();
  if (!is_current || is_locked) {
    wait = std::min(wait, kLockRetry);
  }
  return queue.Descriptor() < 0 ? std::min(wait, kUnwatchedTick) : wait;
}

Player::Player(const PlayerOptions& options_, Queue& queue_, Urgency& urgency_, Sink& sink_)
    : impl(std::make_unique<Impl>(options_, queue_, urgency_, sink_)) {}

Player::~Player() { impl->EndSound(); }

int Player::Step() { return impl->Step(); }

bool Player::IsDone() const { return impl->is_done; }
