#pragma once
// The cameras a host can offer its user, as a QML list model that follows
// cameras plugged in and out.
//
// The registry has no change signal, so the list is read again on a timer
// (once a second by default) and the difference applied as row insertions,
// removals, moves and data changes, never as a reset: a view keeps its
// selection and scroll position. Reading the list may wait on the desktop's
// PipeWire daemon, so it is read on a queue of the model's own, never on the
// GUI thread.
#include "base/ZavoExport.h"
#include "capture/ZMCameraDevices.h"

#include <QAbstractListModel>
#include <QTimer>
#include <QtQml/qqmlregistration.h>
#include <memory>
#include <vector>

namespace zavo::platform {
class DispatchQueue;
}

namespace zavo::quick {

class ZAVO_EXPORT CameraListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(int count READ count NOTIFY countChanged)
    /// Milliseconds between readings of the list; 0 stops following.
    Q_PROPERTY(int refreshInterval READ refreshInterval WRITE setRefreshInterval NOTIFY refreshIntervalChanged)

public:
    enum Role {
        LocationRole = Qt::UserRole + 1,  // "location": "/dev/video0", a video file's path, or empty
        NameRole,                         // "name"
        PositionRole,                     // "position": "front", "back" or ""
        PreferredRole,                    // "preferred": sessions start with it
        UniqueIdRole,                     // "uniqueId": stable across runs
    };
    Q_ENUM(Role)

    explicit CameraListModel(QObject* parent = nullptr);
    ~CameraListModel() override;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    int count() const { return int(cameras_.size()); }
    int refreshInterval() const { return timer_.interval(); }
    void setRefreshInterval(int milliseconds);

    /// Reads the list now (the answer comes a moment later).
    Q_INVOKABLE void refresh();
    /// The row's values by role name, for QML delegates outside a view.
    Q_INVOKABLE QVariantMap get(int row) const;

    /// Applies listing to the model as row changes. GUI thread.
    void apply(const std::vector<ZMCameraDeviceInfo>& listing);

Q_SIGNALS:
    void countChanged();
    void refreshIntervalChanged();

private:
    std::vector<ZMCameraDeviceInfo> cameras_;  // GUI thread
    QTimer timer_;
    std::shared_ptr<platform::DispatchQueue> listingQueue_;
    bool listing_ = false;  // a reading is under way (GUI thread)
    // Answers reach the model through it while the model lives.
    std::shared_ptr<CameraListModel*> token_;
};

}  // namespace zavo::quick
