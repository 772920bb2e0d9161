#include "app/bridge/ProductBridge.h"

namespace vantle::app {

QString qt(const std::string& text) {
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

std::string utf8(const QString& text) {
    return text.toUtf8().toStdString();
}

namespace {
struct Snapshot {
    std::optional<ProductBridge::Question> question;
    bool undoable = false;
    QString undoKind;
    std::optional<ResultLine> result;
};

Snapshot snapshotOf(const LiteProduct& product) {
    Snapshot s;
    if (const auto& q = product.confirmation())
        s.question = ProductBridge::Question{qt(q->title), qt(q->message), qt(q->confirm), qt(q->cancel)};
    s.undoable = product.undoable().has_value();
    if (const auto& undo = product.undoable())
        s.undoKind = std::holds_alternative<Undoable::Trash>(undo->what)     ? "trash"
                     : std::holds_alternative<Undoable::Startup>(undo->what) ? "startup"
                     : std::holds_alternative<Undoable::Balance>(undo->what) ? "balance"
                                                                             : "storage";
    s.result = product.result();
    return s;
}
} // namespace

ProductBridge::ProductBridge(std::shared_ptr<LiteProduct> product, QObject* parent)
    : QObject(parent), product_(std::move(product)) {
    strand_.setObjectName("product");
    strandContext_ = new QObject;
    strandContext_->moveToThread(&strand_);
    connect(&strand_, &QThread::finished, strandContext_, &QObject::deleteLater);
    strand_.start();
    // Two workers: a long scan never keeps the catalog's reading (or a thumbnail) waiting.
    pool_.setMaxThreadCount(2);
    withProduct([this](LiteProduct& p) {
        listener_ = p.addListener([this, &p] {
            auto snapshot = std::make_shared<Snapshot>(snapshotOf(p));
            QMetaObject::invokeMethod(
                this,
                [this, snapshot] {
                    question_ = snapshot->question;
                    undoable_ = snapshot->undoable;
                    undoKind_ = snapshot->undoKind;
                    result_ = snapshot->result;
                    Q_EMIT changed();
                },
                Qt::QueuedConnection);
        });
    });
}

ProductBridge::~ProductBridge() {
    {
        std::lock_guard lock(flagsMutex_);
        for (auto& weak : flags_)
            if (auto flag = weak.lock()) flag->cancel();
    }
    pool_.waitForDone();
    // Work still queued for the product is dropped; the listener goes on the product's own thread,
    // and only once it is gone may the bridge go.
    closing_ = true;
    QMetaObject::invokeMethod(
        strandContext_, [product = product_, token = listener_] { product->removeListener(token); },
        Qt::BlockingQueuedConnection);
    strand_.quit();
    strand_.wait();
}

void ProductBridge::finishOne() {
    if (--pending_ == 0) Q_EMIT idle();
}

void ProductBridge::askToTrash(std::vector<std::filesystem::path> files) {
    withProduct([files = std::move(files)](LiteProduct& p) { p.askToTrash(files); });
}

void ProductBridge::askToClean(CleanPlan plan) {
    withProduct([plan = std::move(plan)](LiteProduct& p) mutable { p.askToClean(std::move(plan)); });
}

void ProductBridge::answer(bool yes) {
    // The question is gone from the window at once; the product clears it when it has acted.
    question_.reset();
    withProduct([yes](LiteProduct& p) { p.answer(yes); });
    Q_EMIT answered(yes);
}

void ProductBridge::undoLast() {
    if (!undoable_) return;
    bool storage = undoKind_ == "storage";
    undoable_ = false;
    undoKind_.clear();
    Q_EMIT changed();
    withProduct([](LiteProduct& p) { p.undoLast(); },
                [this, storage] {
                    if (storage) Q_EMIT storageUndone();
                });
}

void ProductBridge::setWindowVisible(bool visible) {
    if (visible == windowVisible_) return;
    windowVisible_ = visible;
    withProduct([visible](LiteProduct& p) { p.setWindowVisible(visible); });
    Q_EMIT windowVisibleChanged(visible);
}

} // namespace vantle::app
