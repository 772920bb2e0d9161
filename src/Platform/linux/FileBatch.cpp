#include "Platform/FileBatch.h"

#include <algorithm>
#include <cerrno>
#include <liburing.h>
#include <limits>
#include <unistd.h>

namespace vantle {

namespace {
// The answer to a request the kernel never took: unlike an answer that came back, nothing was done.
constexpr int notTaken = std::numeric_limits<int>::min();

int asErrno(int result) {
    return result == notTaken ? -EIO : result;
}
} // namespace

struct FileBatch::Ring {
    io_uring ring{};
    bool ready = false;
    ~Ring() {
        if (ready) io_uring_queue_exit(&ring);
    }
};

FileBatch::FileBatch(unsigned capacity) : capacity_(capacity), ring_(std::make_unique<Ring>()) {}

FileBatch::~FileBatch() = default;

std::unique_ptr<FileBatch> FileBatch::make(unsigned capacity) {
    std::unique_ptr<FileBatch> batch(new FileBatch(std::max(1u, capacity)));
    if (io_uring_queue_init(batch->capacity_, &batch->ring_->ring, 0) != 0) return nullptr;
    batch->ring_->ready = true;
    return batch;
}

// Hands the requests to the kernel a ring's worth at a time, one call a step, and collects every
// answer, so each request is answered exactly once. Once the ring has failed it is not used again
// (left in its queue, requests would go with the next step's), and what it did not take is
// answered notTaken.
template <class Prepare, class Answer>
void FileBatch::run(std::size_t count, Prepare&& prepare, Answer&& answer) {
    for (std::size_t from = 0; from < count; from += capacity_) {
        const auto step = std::min<std::size_t>(capacity_, count - from);
        if (!ring_) {
            for (auto i = from; i < count; ++i)
                answer(i, notTaken);
            return;
        }
        auto& ring = ring_->ring;
        for (auto i = from; i < from + step; ++i) {
            io_uring_sqe* entry = io_uring_get_sqe(&ring);
            prepare(entry, i);
            io_uring_sqe_set_data64(entry, i);
        }
        bool failed = false;
        std::size_t submitted = 0;
        while (submitted < step) {
            int n = io_uring_submit(&ring);
            if (n == -EINTR) continue;
            if (n <= 0) {
                for (auto i = from + submitted; i < from + step; ++i)
                    answer(i, notTaken);
                failed = true;
                break;
            }
            submitted += static_cast<std::size_t>(n);
        }
        for (std::size_t answered = 0; answered < submitted;) {
            io_uring_cqe* done = nullptr;
            int w = io_uring_wait_cqe(&ring, &done);
            if (w == -EINTR) continue;
            if (w < 0) {
                failed = true; // what is still out is never answered: better than answered twice
                break;
            }
            answer(static_cast<std::size_t>(io_uring_cqe_get_data64(done)), done->res);
            io_uring_cqe_seen(&ring, done);
            ++answered;
        }
        if (failed) ring_.reset();
    }
}

void FileBatch::open(std::span<const Open> files, std::span<int> answers) {
    std::fill(answers.begin(), answers.end(), -EIO);
    run(
        files.size(),
        [&](io_uring_sqe* e, std::size_t i) {
            io_uring_prep_openat(e, files[i].dirFd, files[i].name, files[i].flags, 0);
        },
        [&](std::size_t i, int result) { answers[i] = asErrno(result); });
}

void FileBatch::read(std::span<const Read> reads, std::span<std::int64_t> answers) {
    std::fill(answers.begin(), answers.end(), -EIO);
    run(
        reads.size(),
        [&](io_uring_sqe* e, std::size_t i) {
            const auto& r = reads[i];
            io_uring_prep_read(e, r.fd, r.into, r.length, static_cast<__u64>(r.offset));
        },
        [&](std::size_t i, int result) { answers[i] = asErrno(result); });
}

void FileBatch::close(std::span<const int> fds) {
    run(
        fds.size(), [&](io_uring_sqe* e, std::size_t i) { io_uring_prep_close(e, fds[i]); },
        [&](std::size_t i, int result) {
            if (result == notTaken) ::close(fds[i]);
        });
}

} // namespace vantle
