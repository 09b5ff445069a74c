#pragma once
// One connection to a PipeWire daemon: the session's own, or the one the
// desktop's camera portal hands a sandboxed process. It runs PipeWire's loop
// on a thread of its own and keeps the registry's camera nodes with the
// formats each offers, so that listing cameras is a read of that table.
//
// Threads: PipeWire calls back on the loop's thread with the loop's lock
// held; every other thread takes that lock (ThreadLoop) before touching
// PipeWire objects or the table. The lock is held only for bookkeeping,
// never across a wait for frames.
#include "base/ThreadSafety.h"
#include "base/ZavoExport.h"
#include "camera/pipewire/Formats_p.h"

#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <vector>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;
struct spa_dict;
struct spa_pod;

namespace zavo::platform::pipewire {

/// PipeWire's thread loop, its lock known to the thread-safety analysis.
class ZAVO_CAPABILITY("mutex") ThreadLoop {
public:
    ThreadLoop();
    ~ThreadLoop();
    ThreadLoop(const ThreadLoop&) = delete;
    ThreadLoop& operator=(const ThreadLoop&) = delete;

    bool isValid() const { return loop_ != nullptr; }
    pw_thread_loop* get() const { return loop_; }
    bool start();
    /// Ends the loop's thread; callbacks stop before it returns.
    void stop();

    void lock() ZAVO_ACQUIRE();
    void unlock() ZAVO_RELEASE();
    /// For callbacks: PipeWire runs them with the lock held.
    void assertHeld() const ZAVO_ASSERT_CAPABILITY(this) {}
    /// Releases the lock until signal() or the deadline (CLOCK_MONOTONIC
    /// nanoseconds from now); false on time-out.
    bool waitFor(int64_t nanoseconds) ZAVO_REQUIRES(this);
    void signal() ZAVO_REQUIRES(this);

private:
    pw_thread_loop* loop_ = nullptr;
    bool running_ = false;
};

class ZAVO_SCOPED_CAPABILITY LoopLocker {
public:
    explicit LoopLocker(ThreadLoop& loop) ZAVO_ACQUIRE(loop) : loop_(loop) { loop_.lock(); }
    ~LoopLocker() ZAVO_RELEASE() { loop_.unlock(); }
    LoopLocker(const LoopLocker&) = delete;
    LoopLocker& operator=(const LoopLocker&) = delete;

private:
    ThreadLoop& loop_;
};

/// A camera node as the registry describes it.
struct ZAVO_EXPORT CameraNode {
    uint32_t id = 0;       // registry id: what a stream targets
    QString name;          // node.name: stable, the camera's location
    QString description;   // what the user calls it
    QString v4l2Path;      // the /dev/video node it wraps, when it wraps one
    QString location;      // "front", "back" or "external" when the node says
    std::vector<NodeFormat> formats;
};

class ZAVO_EXPORT Connection {
public:
    /// Connects to the session's daemon (remoteFd -1) or to the remote behind
    /// remoteFd, which the connection then owns. Null, with the reason in
    /// *error, when no daemon answers.
    static std::shared_ptr<Connection> open(int remoteFd, QString* error);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// The camera nodes whose formats are known, in order of arrival. Waits
    /// up to a second for the registry's first answer.
    std::vector<CameraNode> cameras() ZAVO_EXCLUDES(loop_);
    /// False once the daemon closed the connection.
    bool isConnected() ZAVO_EXCLUDES(loop_);
    /// Whether the registry still lists this camera node.
    bool hasCamera(uint32_t id, const QString& name) ZAVO_EXCLUDES(loop_);

    ThreadLoop& loop() ZAVO_RETURN_CAPABILITY(loop_) { return loop_; }
    pw_core* core() ZAVO_REQUIRES(loop_) { return core_; }

    /// Calls gone on the loop's thread when node id leaves the registry or
    /// the daemon goes away; a token for stopWatching.
    uint64_t watchRemoval(uint32_t id, std::function<void()> gone) ZAVO_REQUIRES(loop_);
    void stopWatching(uint64_t token) ZAVO_REQUIRES(loop_);

private:
    struct Node;
    struct Listeners;
    Connection();

    void globalAdded(uint32_t id, const char* type, const struct spa_dict* props) ZAVO_REQUIRES(loop_);
    void globalRemoved(uint32_t id) ZAVO_REQUIRES(loop_);
    void syncDone(uint32_t id, int seq) ZAVO_REQUIRES(loop_);
    void coreFailed(uint32_t id, int result, const char* message) ZAVO_REQUIRES(loop_);
    void nodeParam(Node& node, const struct spa_pod* param) ZAVO_REQUIRES(loop_);
    void notifyRemoval(uint32_t id) ZAVO_REQUIRES(loop_);

    ThreadLoop loop_;
    pw_context* context_ = nullptr;
    pw_core* core_ ZAVO_GUARDED_BY(loop_) = nullptr;
    pw_registry* registry_ ZAVO_GUARDED_BY(loop_) = nullptr;
    std::unique_ptr<Listeners> listeners_;
    std::map<uint32_t, std::unique_ptr<Node>> nodes_ ZAVO_GUARDED_BY(loop_);
    std::vector<uint32_t> arrival_ ZAVO_GUARDED_BY(loop_);
    std::map<uint64_t, std::pair<uint32_t, std::function<void()>>> watchers_ ZAVO_GUARDED_BY(loop_);
    uint64_t nextToken_ ZAVO_GUARDED_BY(loop_) = 1;
    int firstSync_ ZAVO_GUARDED_BY(loop_) = -1;
    bool listed_ ZAVO_GUARDED_BY(loop_) = false;
    bool connected_ ZAVO_GUARDED_BY(loop_) = false;
};

}  // namespace zavo::platform::pipewire
