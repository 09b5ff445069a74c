#include "quick/CameraListModel.h"

#include "base/Affinity_p.h"
#include "base/DispatchQueue.h"
#include "quick/QuickLog_p.h"

#include <QSet>

#include <algorithm>

namespace zavo::quick {

using platform::DispatchQueue;

namespace {

constexpr int kDefaultInterval = 1000;

/// What identifies a camera from one reading to the next.
QString keyOf(const ZMCameraDeviceInfo& camera)
{
    return camera.uniqueID.isEmpty() ? camera.location + QLatin1Char('\n') + camera.name : camera.uniqueID;
}

bool sameValues(const ZMCameraDeviceInfo& a, const ZMCameraDeviceInfo& b)
{
    return a.uniqueID == b.uniqueID && a.name == b.name && a.position == b.position && a.location == b.location
        && a.preferred == b.preferred;
}

QString positionName(platform::CaptureDevicePosition position)
{
    switch (position) {
    case platform::CaptureDevicePosition::Front: return QStringLiteral("front");
    case platform::CaptureDevicePosition::Back: return QStringLiteral("back");
    default: return QString();
    }
}

}  // namespace

CameraListModel::CameraListModel(QObject* parent)
    : QAbstractListModel(parent),
      listingQueue_(DispatchQueue::create(QStringLiteral("CameraListModel.listing"), platform::QualityOfService::Utility)),
      token_(std::make_shared<CameraListModel*>(this))
{
    ZAVO_ASSERT_ON_MAIN();
    timer_.setInterval(kDefaultInterval);
    connect(&timer_, &QTimer::timeout, this, &CameraListModel::refresh);
    timer_.start();
    refresh();
}

// A reading under way finishes on its queue and finds no model to give its
// answer to.
CameraListModel::~CameraListModel() = default;

int CameraListModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : count(); }

QVariant CameraListModel::data(const QModelIndex& index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const ZMCameraDeviceInfo& camera = cameras_[size_t(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return camera.name;
    case LocationRole: return camera.location;
    case PositionRole: return positionName(camera.position);
    case PreferredRole: return camera.preferred;
    case UniqueIdRole: return camera.uniqueID;
    default: return {};
    }
}

QHash<int, QByteArray> CameraListModel::roleNames() const
{
    return {{LocationRole, "location"}, {NameRole, "name"}, {PositionRole, "position"},
            {PreferredRole, "preferred"}, {UniqueIdRole, "uniqueId"}};
}

QVariantMap CameraListModel::get(int row) const
{
    QVariantMap values;
    if (row < 0 || row >= count())
        return values;
    const auto roles = roleNames();
    for (auto it = roles.begin(); it != roles.end(); ++it)
        values.insert(QString::fromLatin1(it.value()), data(index(row), it.key()));
    return values;
}

void CameraListModel::setRefreshInterval(int milliseconds)
{
    milliseconds = std::max(0, milliseconds);
    if (milliseconds == timer_.interval())
        return;
    timer_.setInterval(milliseconds);
    if (milliseconds > 0)
        timer_.start();
    else
        timer_.stop();
    emit refreshIntervalChanged();
}

void CameraListModel::refresh()
{
    ZAVO_ASSERT_ON_MAIN();
    if (listing_)
        return;  // the reading under way answers soon enough
    listing_ = true;
    listingQueue_->async([token = std::weak_ptr<CameraListModel*>(token_)] {
        std::vector<ZMCameraDeviceInfo> cameras = ZMCameraDevices::availableCameras();
        DispatchQueue::main().async([token, cameras = std::move(cameras)] {
            if (const auto model = token.lock()) {
                (*model)->listing_ = false;
                (*model)->apply(cameras);
            }
        });
    });
}

void CameraListModel::apply(const std::vector<ZMCameraDeviceInfo>& listing)
{
    ZAVO_ASSERT_ON_MAIN();
    const int before = count();
    QSet<QString> listed;
    for (const auto& camera : listing)
        listed.insert(keyOf(camera));
    for (int row = count() - 1; row >= 0; --row) {
        if (listed.contains(keyOf(cameras_[size_t(row)])))
            continue;
        qCDebug(lcQuick) << "camera gone:" << cameras_[size_t(row)].name << cameras_[size_t(row)].location;
        beginRemoveRows({}, row, row);
        cameras_.erase(cameras_.begin() + row);
        endRemoveRows();
    }
    // Every camera left is listed; put each listed one in its row, moving,
    // inserting or updating as needed. Rows above `row` are final.
    for (int row = 0; row < int(listing.size()); ++row) {
        const ZMCameraDeviceInfo& wanted = listing[size_t(row)];
        const QString key = keyOf(wanted);
        int at = -1;
        for (int i = row; i < count(); ++i) {
            if (keyOf(cameras_[size_t(i)]) == key) {
                at = i;
                break;
            }
        }
        if (at < 0) {
            qCDebug(lcQuick) << "camera added:" << wanted.name << wanted.location;
            beginInsertRows({}, row, row);
            cameras_.insert(cameras_.begin() + row, wanted);
            endInsertRows();
            continue;
        }
        if (at != row) {
            beginMoveRows({}, at, at, {}, row);
            std::rotate(cameras_.begin() + row, cameras_.begin() + at, cameras_.begin() + at + 1);
            endMoveRows();
        }
        if (!sameValues(cameras_[size_t(row)], wanted)) {
            cameras_[size_t(row)] = wanted;
            emit dataChanged(index(row), index(row));
        }
    }
    // Only a listing that named one camera twice leaves rows over.
    if (count() > int(listing.size())) {
        beginRemoveRows({}, int(listing.size()), count() - 1);
        cameras_.resize(listing.size());
        endRemoveRows();
    }
    if (count() != before)
        emit countChanged();
}

}  // namespace zavo::quick
