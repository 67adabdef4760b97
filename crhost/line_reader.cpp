#include "line_reader.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "os/standard_streams.h"

namespace crhost {

struct LineReader::Shared {
    explicit Shared(os::AutoResetEvent& event) : available(&event) {}

    std::mutex mutex;
    std::condition_variable room;   // a line was taken, or the consumer left
    std::deque<Line> lines;         // guarded by mutex
    bool ended = false;             // input ended; guarded by mutex
    bool consumerGone = false;      // guarded by mutex
    os::AutoResetEvent* available;  // guarded by mutex; null once the consumer left

    // Queues one line, waiting for room; false once the consumer left.
    bool Push(Line line) {
        std::unique_lock lock(mutex);
        room.wait(lock, [&] { return consumerGone || lines.size() < kQueuedLines; });
        if (consumerGone) return false;
        lines.push_back(std::move(line));
        available->Set();
        return true;
    }

    void End() {
        std::lock_guard lock(mutex);
        ended = true;
        if (available) available->Set();
    }

    void Read() {
        std::vector<char> buffer(size_t{64} * 1024);
        LineSplitter splitter(kMaxLineBytes);
        const LineSplitter::Emit push = [this](Line line) { return Push(std::move(line)); };
        for (;;) {
            const size_t got = os::ReadStandardInput(buffer.data(), buffer.size());
            if (got == 0) break;
            if (!splitter.Feed(buffer.data(), got, push)) return;
        }
        if (!splitter.Finish(push)) return;
        End();
    }
};

LineReader::LineReader(os::AutoResetEvent& available) : shared_(std::make_shared<Shared>(available)) {
    // The thread shares ownership of the state, so that it may outlive the
    // reader while blocked in a read of input that never ends.
    std::thread([shared = shared_] { shared->Read(); }).detach();
}

LineReader::~LineReader() {
    std::lock_guard lock(shared_->mutex);
    shared_->consumerGone = true;
    shared_->available = nullptr;
    shared_->room.notify_all();
}

std::optional<LineReader::Line> LineReader::Next() {
    std::lock_guard lock(shared_->mutex);
    if (shared_->lines.empty()) return std::nullopt;
    Line line = std::move(shared_->lines.front());
    shared_->lines.pop_front();
    shared_->room.notify_all();
    return line;
}

bool LineReader::Ended() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->ended && shared_->lines.empty();
}

}  // namespace crhost
