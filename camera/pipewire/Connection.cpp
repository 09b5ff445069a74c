#include "camera/pipewire/Connection_p.h"

#include "base/Log_p.h"

#include <QDeadlineTimer>

#include <pipewire/pipewire.h>
#include <spa/param/param.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <unistd.h>

namespace zavo::platform::pipewire {

namespace {

constexpr qint64 kFirstListingWaitMs = 1000;

void initialiseOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

QString text(const char* value) { return value ? QString::fromUtf8(value) : QString(); }

QString lookup(const spa_dict* props, const char* key) { return props ? text(spa_dict_lookup(props, key)) : QString(); }

// Cameras are video sources whose role says so: that is how both the
// desktop's session manager and the camera portal tell them from screen
// casts and other video producers.
bool isCameraNode(const char* type, const spa_dict* props)
{
    return std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0 && lookup(props, PW_KEY_MEDIA_CLASS) == QLatin1String("Video/Source")
        && lookup(props, PW_KEY_MEDIA_ROLE) == QLatin1String("Camera");
}

// The V4L2 node a PipeWire camera wraps: "api.v4l2.path", or the
// "v4l2:/dev/videoN" object path the session manager gives such nodes.
QString v4l2PathOf(const spa_dict* props)
{
    QString path = lookup(props, "api.v4l2.path");
    if (path.isEmpty()) {
        const QString objectPath = lookup(props, PW_KEY_OBJECT_PATH);
        if (objectPath.startsWith(QLatin1String("v4l2:")))
            path = objectPath.mid(5);
    }
    return path;
}

}  // namespace

// ---- ThreadLoop ----

ThreadLoop::ThreadLoop()
{
    initialiseOnce();
    loop_ = pw_thread_loop_new("zavo-pipewire", nullptr);
}

ThreadLoop::~ThreadLoop()
{
    stop();
    if (loop_)
        pw_thread_loop_destroy(loop_);
}

bool ThreadLoop::start()
{
    running_ = loop_ && pw_thread_loop_start(loop_) == 0;
    return running_;
}

void ThreadLoop::stop()
{
    if (running_)
        pw_thread_loop_stop(loop_);
    running_ = false;
}

void ThreadLoop::lock() { pw_thread_loop_lock(loop_); }
void ThreadLoop::unlock() { pw_thread_loop_unlock(loop_); }

bool ThreadLoop::waitFor(int64_t nanoseconds)
{
    timespec deadline{};
    if (pw_thread_loop_get_time(loop_, &deadline, nanoseconds) < 0)
        return false;
    return pw_thread_loop_timed_wait_full(loop_, &deadline) == 0;
}

void ThreadLoop::signal() { pw_thread_loop_signal(loop_, false); }

// ---- Connection ----

struct Connection::Node {
    Connection* owner = nullptr;
    CameraNode camera;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    int pendingSync = -1;  // formats known once the core answers this sync
    bool ready = false;

    ~Node()
    {
        spa_hook_remove(&listener);
        if (proxy)
            pw_proxy_destroy(proxy);
    }
};

struct Connection::Listeners {
    spa_hook core{};
    spa_hook registry{};
};

namespace {

Connection* connectionOf(void* data) { return static_cast<Connection*>(data); }

}  // namespace

Connection::Connection() : listeners_(std::make_unique<Listeners>()) {}

std::shared_ptr<Connection> Connection::open(int remoteFd, QString* error)
{
    auto fail = [&](const QString& why) -> std::shared_ptr<Connection> {
        if (error)
            *error = why;
        return nullptr;
    };
    std::shared_ptr<Connection> connection(new Connection);
    if (!connection->loop_.isValid()) {
        if (remoteFd >= 0)
            ::close(remoteFd);
        return fail(QStringLiteral("PipeWire's loop could not be made"));
    }
    connection->context_ = pw_context_new(pw_thread_loop_get_loop(connection->loop_.get()), nullptr, 0);
    if (!connection->context_) {
        if (remoteFd >= 0)
            ::close(remoteFd);
        return fail(QStringLiteral("PipeWire's context could not be made: %1").arg(text(std::strerror(errno))));
    }
    if (!connection->loop_.start()) {
        if (remoteFd >= 0)
            ::close(remoteFd);
        return fail(QStringLiteral("PipeWire's loop thread did not start"));
    }

    static const pw_core_events coreEvents = {
        .version = PW_VERSION_CORE_EVENTS,
        .done = [](void* data, uint32_t id, int seq) {
            auto* self = connectionOf(data);
            self->loop_.assertHeld();
            self->syncDone(id, seq);
        },
        .error = [](void* data, uint32_t id, int, int result, const char* message) {
            auto* self = connectionOf(data);
            self->loop_.assertHeld();
            self->coreFailed(id, result, message);
        },
    };
    static const pw_registry_events registryEvents = {
        .version = PW_VERSION_REGISTRY_EVENTS,
        .global = [](void* data, uint32_t id, uint32_t, const char* type, uint32_t, const spa_dict* props) {
            auto* self = connectionOf(data);
            self->loop_.assertHeld();
            self->globalAdded(id, type, props);
        },
        .global_remove = [](void* data, uint32_t id) {
            auto* self = connectionOf(data);
            self->loop_.assertHeld();
            self->globalRemoved(id);
        },
    };

    Connection& c = *connection;
    LoopLocker lock(c.loop_);
    c.core_ = remoteFd >= 0 ? pw_context_connect_fd(c.context_, remoteFd, nullptr, 0)
                            : pw_context_connect(c.context_, nullptr, 0);
    if (!c.core_)
        return fail(QStringLiteral("no PipeWire daemon answers: %1").arg(text(std::strerror(errno))));
    pw_core_add_listener(c.core_, &c.listeners_->core, &coreEvents, &c);
    c.registry_ = pw_core_get_registry(c.core_, PW_VERSION_REGISTRY, 0);
    if (!c.registry_)
        return fail(QStringLiteral("PipeWire's registry could not be read"));
    pw_registry_add_listener(c.registry_, &c.listeners_->registry, &registryEvents, &c);
    c.firstSync_ = pw_core_sync(c.core_, PW_ID_CORE, 0);
    c.connected_ = true;
    return connection;
}

Connection::~Connection()
{
    // Once the thread has ended no callback can run; the lock is taken only
    // so that the analysis sees the table touched under it.
    loop_.stop();
    LoopLocker lock(loop_);
    nodes_.clear();
    spa_hook_remove(&listeners_->registry);
    spa_hook_remove(&listeners_->core);
    if (registry_)
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    if (core_)
        pw_core_disconnect(core_);
    if (context_)
        pw_context_destroy(context_);
}

std::vector<CameraNode> Connection::cameras()
{
    LoopLocker lock(loop_);
    auto settled = [&]() ZAVO_REQUIRES(loop_) {
        if (!connected_)
            return true;
        if (!listed_)
            return false;
        for (const auto& [id, node] : nodes_) {
            if (!node->ready)
                return false;
        }
        return true;
    };
    const QDeadlineTimer deadline(kFirstListingWaitMs);
    while (!settled()) {
        if (deadline.hasExpired() || !loop_.waitFor(deadline.remainingTimeNSecs())) {
            qCWarning(lcCameraPipewire, "the PipeWire daemon did not finish listing its cameras within a second");
            break;
        }
    }
    std::vector<CameraNode> cameras;
    for (uint32_t id : arrival_) {
        auto it = nodes_.find(id);
        if (it != nodes_.end() && it->second->ready && !it->second->camera.formats.empty())
            cameras.push_back(it->second->camera);
    }
    return cameras;
}

bool Connection::isConnected()
{
    LoopLocker lock(loop_);
    return connected_;
}

bool Connection::hasCamera(uint32_t id, const QString& name)
{
    LoopLocker lock(loop_);
    auto it = nodes_.find(id);
    return connected_ && it != nodes_.end() && it->second->camera.name == name;
}

uint64_t Connection::watchRemoval(uint32_t id, std::function<void()> gone)
{
    const uint64_t token = nextToken_++;
    watchers_.emplace(token, std::make_pair(id, std::move(gone)));
    return token;
}

void Connection::stopWatching(uint64_t token) { watchers_.erase(token); }

void Connection::globalAdded(uint32_t id, const char* type, const spa_dict* props)
{
    if (!isCameraNode(type, props))
        return;
    static const pw_node_events nodeEvents = {
        .version = PW_VERSION_NODE_EVENTS,
        .param = [](void* data, int, uint32_t paramId, uint32_t, uint32_t, const spa_pod* param) {
            auto* node = static_cast<Node*>(data);
            node->owner->loop_.assertHeld();
            if (paramId == SPA_PARAM_EnumFormat)
                node->owner->nodeParam(*node, param);
        },
    };
    auto node = std::make_unique<Node>();
    node->owner = this;
    node->camera.id = id;
    node->camera.name = lookup(props, PW_KEY_NODE_NAME);
    node->camera.description = lookup(props, PW_KEY_NODE_DESCRIPTION);
    if (node->camera.description.isEmpty())
        node->camera.description = lookup(props, PW_KEY_NODE_NICK);
    if (node->camera.description.isEmpty())
        node->camera.description = node->camera.name;
    node->camera.v4l2Path = v4l2PathOf(props);
    node->camera.location = lookup(props, "api.libcamera.location");
    node->proxy = static_cast<pw_proxy*>(pw_registry_bind(registry_, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
    if (!node->proxy) {
        qCWarning(lcCameraPipewire, "camera node %u (%s) could not be bound", id, qUtf8Printable(node->camera.name));
        return;
    }
    pw_proxy_add_object_listener(node->proxy, &node->listener, &nodeEvents, node.get());
    pw_node_enum_params(reinterpret_cast<pw_node*>(node->proxy), 0, SPA_PARAM_EnumFormat, 0, UINT32_MAX, nullptr);
    node->pendingSync = pw_core_sync(core_, PW_ID_CORE, 0);
    arrival_.push_back(id);
    nodes_[id] = std::move(node);
}

void Connection::nodeParam(Node& node, const spa_pod* param) { appendOfferedFormats(param, node.camera.formats); }

void Connection::globalRemoved(uint32_t id)
{
    auto it = nodes_.find(id);
    if (it == nodes_.end())
        return;
    qCInfo(lcCameraPipewire, "pipewire:%s (%s) is gone", qUtf8Printable(it->second->camera.name),
           qUtf8Printable(it->second->camera.description));
    nodes_.erase(it);
    arrival_.erase(std::remove(arrival_.begin(), arrival_.end(), id), arrival_.end());
    notifyRemoval(id);
    loop_.signal();
}

void Connection::syncDone(uint32_t id, int seq)
{
    if (id != PW_ID_CORE)
        return;
    if (seq == firstSync_)
        listed_ = true;
    for (auto& [nodeId, node] : nodes_) {
        if (!node->ready && node->pendingSync == seq) {
            node->ready = true;
            if (node->camera.formats.empty())
                qCInfo(lcCameraPipewire, "pipewire:%s (%s) offers no format decoded here", qUtf8Printable(node->camera.name),
                       qUtf8Printable(node->camera.description));
            else
                qCInfo(lcCameraPipewire, "pipewire:%s (%s) is present, %zu formats", qUtf8Printable(node->camera.name),
                       qUtf8Printable(node->camera.description), node->camera.formats.size());
        }
    }
    loop_.signal();
}

void Connection::coreFailed(uint32_t id, int result, const char* message)
{
    // A proxy of a node that has just left the registry draws "unknown
    // resource" answers: expected, and no news to anyone reading the log.
    if (result == -ENOENT)
        qCDebug(lcCameraPipewire, "PipeWire error on object %u: %s", id, message ? message : "");
    else
        qCWarning(lcCameraPipewire, "PipeWire error on object %u: %s (%s)", id, message ? message : "",
                  spa_strerror(result));
    if (id != PW_ID_CORE || result != -EPIPE)
        return;
    // The daemon went away: every camera with it.
    connected_ = false;
    std::vector<uint32_t> ids;
    for (const auto& [nodeId, node] : nodes_)
        ids.push_back(nodeId);
    nodes_.clear();
    arrival_.clear();
    for (uint32_t nodeId : ids)
        notifyRemoval(nodeId);
    loop_.signal();
}

void Connection::notifyRemoval(uint32_t id)
{
    // A watcher may stop watching from inside its call.
    std::vector<std::function<void()>> calls;
    for (const auto& [token, watch] : watchers_) {
        if (watch.first == id)
            calls.push_back(watch.second);
    }
    for (auto& call : calls)
        call();
}

}  // namespace zavo::platform::pipewire
