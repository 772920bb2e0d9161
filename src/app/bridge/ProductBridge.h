// The one object that holds the product model for the window. Every call into the product runs on
// the product's own worker thread, one at a time, and long work (scans, walks, hashing) on a small
// pool; results come back to the UI thread, where the pages apply them. Made, used and destroyed on
// the UI thread; the destructor cancels outstanding long work and waits for it.
#pragma once
#include "VantleSpec/CancelFlag.h"
#include "Vantle_Lite/LiteProduct.h"

#include <QObject>
#include <QPointer>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <vector>

namespace vantle::app {

class ProductBridge : public QObject {
    Q_OBJECT
  public:
    // The question the product is asking, copied for the UI thread.
    struct Question {
        QString title;
        QString message;
        QString confirm;
        QString cancel;
    };

    explicit ProductBridge(std::shared_ptr<LiteProduct> product, QObject* parent = nullptr);
    ~ProductBridge() override;

    // The parts of the live record that never change after start-up (home, data folder, notes) and
    // the services, each thread-safe on its own. Long calls still belong on a worker.
    const VantleLite& live() const { return product_->live(); }

    // Runs `work(product)` on the product's thread, then `apply(result)` on the UI thread.
    template <class Work, class Apply> void withProduct(Work work, Apply apply) {
        using Result = std::invoke_result_t<Work, LiteProduct&>;
        ++pending_;
        QMetaObject::invokeMethod(
            strandContext_,
            [this, product = product_, work = std::move(work), apply = std::move(apply)]() mutable {
                if (closing_) return;
                if constexpr (std::is_void_v<Result>) {
                    work(*product);
                    applyOnUi(std::move(apply));
                } else {
                    auto result = std::make_shared<Result>(work(*product));
                    applyOnUi([result, apply = std::move(apply)]() mutable { apply(std::move(*result)); });
                }
            },
            Qt::QueuedConnection);
    }
    void withProduct(std::function<void(LiteProduct&)> work) {
        withProduct(std::move(work), [] {});
    }

    // Runs `work(cancel)` on the pool, then `apply(result)` on the UI thread unless the bridge is
    // gone. The flag is set when the bridge closes; a page may set it earlier through the handle.
    template <class Work, class Apply> std::shared_ptr<CancelFlag> inBackground(Work work, Apply apply) {
        using Result = std::invoke_result_t<Work, CancelFlag&>;
        auto cancel = std::make_shared<CancelFlag>();
        {
            std::lock_guard lock(flagsMutex_);
            std::erase_if(flags_, [](const std::weak_ptr<CancelFlag>& f) { return f.expired(); });
            flags_.push_back(cancel);
        }
        ++pending_;
        pool_.start([this, cancel, work = std::move(work), apply = std::move(apply)]() mutable {
            auto result = std::make_shared<Result>(work(*cancel));
            applyOnUi([result, apply = std::move(apply)]() mutable { apply(std::move(*result)); });
        });
        return cancel;
    }

    // What the product last said, as seen on the UI thread.
    const std::optional<Question>& question() const { return question_; }
    bool undoable() const { return undoable_; }
    // What Undo would put back: "trash", "startup", "storage" or "balance"; empty when nothing.
    const QString& undoKind() const { return undoKind_; }
    const std::optional<ResultLine>& result() const { return result_; }

    // The product's actions, run on its thread; `changed` follows.
    void askToTrash(std::vector<std::filesystem::path> files);
    void askToClean(CleanPlan plan);
    void answer(bool yes);
    void undoLast();

    // Whether the window can be seen; a change is published only when the value really changes.
    bool windowVisible() const { return windowVisible_; }
    void setWindowVisible(bool visible);

    // Work handed out and not yet applied (tests wait for it to reach zero).
    int pending() const { return pending_; }

  Q_SIGNALS:
    void changed();
    void windowVisibleChanged(bool visible);
    // The question was answered; what the yes does is queued on the product's thread, so work
    // handed over after this runs once it is done.
    void answered(bool yes);
    void idle();
    // An Undo put back items a clean had set aside: storage figures are out of date.
    void storageUndone();

  private:
    // Runs `apply()` on the UI thread, then counts the handed-out work as done.
    template <class Apply> void applyOnUi(Apply apply) {
        QMetaObject::invokeMethod(
            this,
            [this, apply = std::move(apply)]() mutable {
                apply();
                finishOne();
            },
            Qt::QueuedConnection);
    }
    void finishOne();
    void refresh(); // copies the product's question, undo and result line to the UI thread

    std::shared_ptr<LiteProduct> product_;
    QThread strand_;
    QObject* strandContext_ = nullptr;
    QThreadPool pool_;
    std::mutex flagsMutex_;
    std::vector<std::weak_ptr<CancelFlag>> flags_;
    int listener_ = 0;
    int pending_ = 0;
    std::atomic<bool> closing_{false};
    std::optional<Question> question_;
    bool undoable_ = false;
    QString undoKind_;
    std::optional<ResultLine> result_;
    bool windowVisible_ = true;
};

QString qt(const std::string& text);
std::string utf8(const QString& text);

} // namespace vantle::app
