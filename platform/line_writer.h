// Writes lines on a thread of its own, so that a reader who stops reading delays nobody.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qm5 {

/// Lines for one or more streams, queued by any thread and written by one. Lines of one stream
/// keep their order; lines of several do too, unless one of these streams takes none. A line is
/// written at once, or within 20 ms where it follows another one. Never destroyed: its thread lives
/// as long as the process.
class LineWriter {
 public:
  /// Writes the beginning of `lines`, which end in line feeds, to a stream. Returns how many bytes
  /// are dealt with: 0 when the stream has taken none within `timeout`, all when it will never take
  /// them.
  using Sink =
      std::function<std::size_t(std::string_view lines, std::chrono::milliseconds timeout)>;

  /// How much is kept for each stream while it takes nothing.
  static constexpr std::size_t kBytesKept = std::size_t{1} << 20;

  /// One sink for each stream, called by one thread at a time. The thread, of that name, starts
  /// with the first line. Where the system has no thread left, the lines are written by those who
  /// submit them.
  LineWriter(std::string thread_name, std::vector<Sink> sinks);

  /// Submits a line to the stream of that index and returns at once. A line that is too much for
  /// a stream that takes nothing is left out; once the stream has taken all that was kept, it is
  /// given a line with their number. Any thread.
  void submit(std::size_t stream, std::string_view line);

  /// Returns when all lines have been dealt with. At `deadline` it gives up the streams that take
  /// nothing, and at `last` those that the writer's thread has not come to, as on a busy computer.
  /// Any thread but the writer's.
  void flush(std::chrono::steady_clock::time_point deadline,
             std::chrono::steady_clock::time_point last);

 private:
  struct Stream {
    Sink sink;
    std::size_t queued = 0;    // bytes, those that are being written included
    std::size_t left_out = 0;  // lines
    bool stalled = false;
  };
  // Lines that were submitted one after another to the same stream.
  struct Batch {
    std::size_t stream;
    std::string lines;
  };

  void enqueue(std::size_t stream, std::string_view line);
  bool startThread();
  void run();
  bool writeBatches(std::unique_lock<std::mutex>& lock);
  void writeBatch(const std::deque<Batch>::iterator& batch, std::unique_lock<std::mutex>& lock,
                  std::chrono::milliseconds timeout);

  const std::string thread_name_;
  std::mutex mutex_;
  std::condition_variable submitted_;
  std::condition_variable written_;
  std::vector<Stream> streams_;
  std::deque<Batch> batches_;
  bool has_thread_ = false;
  bool writing_ = false;     // a thread is inside a sink, without the mutex
  bool collecting_ = false;  // the writer's thread looks for lines again by itself
};

/// A sink that writes to a descriptor, and waits for its reader no longer than it is told to. The
/// descriptor's own flags stay as they are: other processes share them.
LineWriter::Sink descriptorSink(int descriptor);

/// The standard streams, in the order of their writing.
enum class StandardStream { output, error };

/// Submits a line to one of the process's standard streams. Any thread.
void writeLine(StandardStream stream, std::string_view line);

/// Submits a line to the system's log. Any thread.
void writeSystemLog(std::string_view line);

/// Has the lines written that can be. Waits at most 0.2 s for a stream that takes nothing, and 5 s
/// for a busy computer to come to the standard streams. Call it before the process ends. Any
/// thread.
void flushLines();

}  // namespace qm5
