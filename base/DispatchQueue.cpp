#include "base/DispatchQueue.h"

#include "base/MainQueueWait_p.h"
#include "base/RingQueue_p.h"
#include "base/ThreadSafety.h"

#include <QCoreApplication>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

namespace zavo::platform {

namespace {
std::atomic<int> gLiveThreads{0};

int niceFor(QualityOfService qos, int relativePriority)
{
    int base = 0;
    switch (qos) {
    case QualityOfService::Background: base = 10; break;
    case QualityOfService::Utility: base = 5; break;
    default: base = 0; break;
    }
    // A relative priority can only lower the thread (raising needs privileges).
    return base + (relativePriority < 0 ? -relativePriority : 0);
}
}  // namespace

// ---------------------------------------------------------------- work item

DispatchWorkItem::DispatchWorkItem(std::function<void()> block) : block_(std::move(block)) {}

void DispatchWorkItem::perform()
{
    if (!cancelled_.load(std::memory_order_acquire) && block_)
        block_();
}

void DispatchWorkItem::cancel() { cancelled_.store(true, std::memory_order_release); }

bool DispatchWorkItem::isCancelled() const { return cancelled_.load(std::memory_order_acquire); }

// ------------------------------------------------------------- serial queue

struct DispatchQueue::State {
    using Clock = std::chrono::steady_clock;

    QString label;
    QualityOfService qos = QualityOfService::Unspecified;
    int relativePriority = 0;

    Mutex mutex;
    std::condition_variable wake;
    RingQueue<Block> ready ZAVO_GUARDED_BY(mutex);  // keeps its slots
    std::multimap<Clock::time_point, Block> timers ZAVO_GUARDED_BY(mutex);  // multimap keeps FIFO among equal times
    bool released ZAVO_GUARDED_BY(mutex) = false;

    // Signalled under the lock: once the lock is released, a queue that was
    // let go may end its thread and destroy this state at any moment.
    void enqueue(Block block)
    {
        MutexLocker lock(mutex);
        ready.push(std::move(block));
        wake.notify_one();
    }

    void enqueueAt(Clock::time_point when, Block block)
    {
        MutexLocker lock(mutex);
        timers.emplace(when, std::move(block));
        wake.notify_one();
    }

    static void run(std::shared_ptr<State> self);
};

namespace {
thread_local const DispatchQueue::State* tlsCurrentQueue = nullptr;
}

void DispatchQueue::State::run(std::shared_ptr<State> self)
{
    // Linux limits thread names to 15 characters; the tail of a reverse-DNS
    // label is the part that tells queues apart.
    QByteArray name = self->label.toUtf8();
    if (name.size() > 15)
        name = name.right(15);
    pthread_setname_np(pthread_self(), name.constData());
    if (const int nice = niceFor(self->qos, self->relativePriority); nice > 0)
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice);
    tlsCurrentQueue = self.get();

    MutexLocker lock(self->mutex);
    for (;;) {
        const auto now = Clock::now();
        while (!self->timers.empty() && self->timers.begin()->first <= now) {
            self->ready.push(std::move(self->timers.begin()->second));
            self->timers.erase(self->timers.begin());
        }
        if (!self->ready.empty()) {
            Block block = self->ready.pop();
            lock.unlock();
            block();
            block = nullptr;  // release what the block captured outside the lock
            lock.lock();
            continue;
        }
        if (self->released && self->timers.empty())
            break;
        if (self->timers.empty())
            self->mutex.wait(self->wake);
        else
            self->mutex.waitUntil(self->wake, self->timers.begin()->first);
    }
    lock.unlock();
    tlsCurrentQueue = nullptr;
    gLiveThreads.fetch_sub(1);
}

std::shared_ptr<DispatchQueue> DispatchQueue::create(const QString& label, QualityOfService qos,
                                                     int relativePriority)
{
    std::shared_ptr<DispatchQueue> queue(new DispatchQueue());
    queue->state_ = std::make_shared<State>();
    queue->state_->label = label;
    queue->state_->qos = qos;
    queue->state_->relativePriority = relativePriority;
    gLiveThreads.fetch_add(1);
    std::thread(&State::run, queue->state_).detach();
    return queue;
}

DispatchQueue::~DispatchQueue()
{
    if (!state_)
        return;
    MutexLocker lock(state_->mutex);
    state_->released = true;
    state_->wake.notify_one();
}

int DispatchQueue::liveThreadCount() { return gLiveThreads.load(); }

// --------------------------------------------------------------- main queue
//
// Blocks for the GUI thread travel through a list of our own, under a plain
// mutex; the Qt event loop only gets a wake-up through an eventfd that a
// QSocketNotifier watches. Handing the blocks themselves to Qt's queued events
// would work too, but then the hand-off happens inside Qt's own locks, which
// the thread sanitizer cannot see, and every block crossing threads would be
// reported as a race.

namespace {
struct MainQueueState {
    Mutex mutex;
    RingQueue<std::function<void()>> ready ZAVO_GUARDED_BY(mutex);
    int wakeFd = -1;
    QPointer<QSocketNotifier> notifier;       // GUI thread only
    std::atomic<bool> applicationSeen{false};
    std::atomic<int> delayedPending{0};  // asyncAfter blocks not yet run

    MainQueueState() : wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    void enqueue(std::function<void()> block)
    {
        {
            MutexLocker lock(mutex);
            ready.push(std::move(block));
        }
        const uint64_t one = 1;
        [[maybe_unused]] const auto written = write(wakeFd, &one, sizeof one);
    }

    void drain()
    {
        uint64_t count = 0;
        [[maybe_unused]] const auto read = ::read(wakeFd, &count, sizeof count);
        // Only what is queued now: blocks queued by these blocks run on the
        // next turn of the event loop, as with posted events. Blocks are taken
        // one at a time rather than as a swapped-out batch, because a block
        // may spin a nested event loop that drains the list meanwhile.
        size_t queuedNow = 0;
        {
            MutexLocker lock(mutex);
            queuedNow = ready.size();
        }
        for (; queuedNow > 0; --queuedNow) {
            std::function<void()> block;
            {
                MutexLocker lock(mutex);
                if (ready.empty())
                    return;
                block = ready.pop();
            }
            block();
        }
    }
};

// Never destroyed. Blocks still queued when the process ends never run, and
// destroying them during static destruction, after the application object is
// gone, would run the destructors of GUI objects they hold (a screen whose
// release was queued last) without an application. The process is ending, so
// they are left in place, still reachable for the leak checker.
MainQueueState& mainQueueState()
{
    alignas(MainQueueState) static unsigned char storage[sizeof(MainQueueState)];
    static MainQueueState* state = std::construct_at(reinterpret_cast<MainQueueState*>(storage));
    return *state;
}

// Runs in the QCoreApplication constructor, on the GUI thread, so the
// notifier exists before any other thread can post to the main queue.
void installMainQueueNotifier()
{
    MainQueueState& state = mainQueueState();
    state.applicationSeen.store(true);
    auto* notifier = new QSocketNotifier(state.wakeFd, QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [] { mainQueueState().drain(); });
    state.notifier = notifier;
}
}  // namespace

Q_COREAPP_STARTUP_FUNCTION(installMainQueueNotifier)

namespace {
QObject* mainContext()
{
    QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        qFatal("zavo: the main queue needs a QCoreApplication");
    return app;
}
}  // namespace

DispatchQueue& DispatchQueue::main()
{
    static DispatchQueue mainQueue;
    return mainQueue;
}

bool runMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    if (!DispatchQueue::main().isCurrent())
        qFatal("zavo: runMainQueueUntil off the GUI thread");
    const auto deadline = std::chrono::steady_clock::now() + limit;
    MainQueueState& main = mainQueueState();
    while (!done()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        // What done() watches (threads ending) posts nothing when it changes:
        // look again at least every few milliseconds.
        pollfd wake{main.wakeFd, POLLIN, 0};
        if (::poll(&wake, 1, int(std::min<long>(left.count(), 5))) > 0)
            main.drain();
    }
    return true;
}

// ------------------------------------------------------------------ common

QString DispatchQueue::label() const
{
    return state_ ? state_->label : QStringLiteral("main");
}

QualityOfService DispatchQueue::qualityOfService() const
{
    return state_ ? state_->qos : QualityOfService::UserInteractive;
}

bool DispatchQueue::isCurrent() const
{
    if (state_)
        return tlsCurrentQueue == state_.get();
    QCoreApplication* app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

void DispatchQueue::async(Block block)
{
    if (state_) {
        state_->enqueue(std::move(block));
        return;
    }
    // Once the application object is gone the block is kept but never runs,
    // as work handed to a GUI thread that has finished: background work that
    // ends after the host shut down must not take the process with it.
    MainQueueState& main = mainQueueState();
    if (!main.applicationSeen.load() && !QCoreApplication::instance())
        qFatal("zavo: the main queue needs a QCoreApplication");
    main.enqueue(std::move(block));
}

void DispatchQueue::async(const std::shared_ptr<DispatchWorkItem>& item)
{
    async([item] { item->perform(); });
}

void DispatchQueue::sync(const Block& block)
{
    if (isCurrent()) {
        block();
        return;
    }
    // Everything the queued block needs lives here, on the waiting stack; the
    // block itself captures one pointer, small enough for std::function to
    // hold without an allocation (the frame path waits on the main queue
    // once per frame).
    struct Rendezvous {
        const Block& block;
        std::mutex mutex;
        std::condition_variable signal;
        bool done = false;
    } rendezvous{block};
    async([r = &rendezvous] {
        r->block();
        std::lock_guard lock(r->mutex);
        r->done = true;
        r->signal.notify_one();
    });
    std::unique_lock lock(rendezvous.mutex);
    rendezvous.signal.wait(lock, [&] { return rendezvous.done; });
}

void DispatchQueue::asyncAfter(Duration delay, Block block)
{
    if (delay < Duration::zero())
        delay = Duration::zero();
    if (state_) {
        state_->enqueueAt(State::Clock::now() + delay, std::move(block));
        return;
    }
    // Timers belong to the thread that starts them: start it on the GUI thread.
    const auto deadline = State::Clock::now() + delay;
    mainQueueState().delayedPending.fetch_add(1);
    async([deadline, block = std::move(block)]() mutable {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - State::Clock::now());
        QTimer::singleShot(std::max<std::chrono::milliseconds>(left, std::chrono::milliseconds(0)), Qt::PreciseTimer,
                           mainContext(), [block = std::move(block)] {
                               block();
                               mainQueueState().delayedPending.fetch_sub(1);
                           });
    });
}

int DispatchQueue::pendingDelayedCount() const
{
    if (!state_)
        return mainQueueState().delayedPending.load();
    MutexLocker lock(state_->mutex);
    return int(state_->timers.size());
}

void DispatchQueue::asyncAfter(Duration delay, const std::shared_ptr<DispatchWorkItem>& item)
{
    asyncAfter(delay, [item] { item->perform(); });
}

void DispatchQueue::asyncAfter(double seconds, Block block)
{
    asyncAfter(std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds)), std::move(block));
}

}  // namespace zavo::platform
