#include "ui/ZEAboutVC.h"

#include "base/Bundle_p.h"
#include "ui/ZavoFonts.h"

#include <QEvent>
#include <QLabel>
#include <array>

namespace zavo {

namespace {

constexpr double kLabelFontSize = 17.0;

// Stacks the labels from the top of the page. Layouts cannot put a label's
// trailing edge beyond its parent's, so the frames are set by hand: each label
// runs from SideOffset to SideOffset past the right edge, where long text is
// clipped instead of stopping short.
class LabelStack : public QObject {
public:
    LabelStack(QWidget* page, std::array<QLabel*, 3> labels, double sideOffset)
        : QObject(page), page_(page), labels_(labels), sideOffset_(sideOffset)
    {
        page->installEventFilter(this);
    }

    void layOut()
    {
        const int side = qRound(sideOffset_);
        int top = 0;  // the page has no safe-area inset on a desktop
        for (QLabel* label : labels_) {
            top += side;
            const int height = label->sizeHint().height();
            label->setGeometry(side, top, page_->width(), height);
            top += height;
        }
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        const auto type = event->type();
        if (watched == page_ && (type == QEvent::Resize || type == QEvent::LayoutRequest || type == QEvent::Show))
            layOut();
        return false;
    }

private:
    QWidget* page_;
    std::array<QLabel*, 3> labels_;
    double sideOffset_;
};

QString requiredInfoString(const QVariantMap& info, const char* key)
{
    const QVariant value = info.value(QLatin1String(key));
    if (value.typeId() != QMetaType::QString)
        qFatal("ZEAboutVC: the host application has no string %s", key);
    return value.toString();
}

// Every host has a version and a build number; the name is optional.
QString applicationLine()
{
    const std::optional<QVariantMap> info = platform::Bundle::main().infoDictionary();
    if (!info)
        qFatal("ZEAboutVC: the host application has no information dictionary");
    const QVariant name = info->value(QStringLiteral("CFBundleName"));
    const QString appName = name.typeId() == QMetaType::QString ? name.toString() : QStringLiteral("unknown");
    const QString version = requiredInfoString(*info, "CFBundleShortVersionString") + QLatin1Char('(')
        + requiredInfoString(*info, "CFBundleVersion") + QLatin1Char(')');
    return appName + QStringLiteral(" v.") + version;
}

QLabel* makeLabel(const QString& text, QWidget* page)
{
    auto* label = new QLabel(page);
    label->setTextFormat(Qt::PlainText);
    label->setText(text);
    if (auto font = fontNamed(kEtelkaFontFamily, kLabelFontSize))
        label->setFont(*font);
    return label;
}

}  // namespace

ZEAboutVC::ZEAboutVC(std::shared_ptr<core::ZCZavoConfiguration> zavoConfig)
{
    setZavoConfiguration(std::move(zavoConfig));
}

ZEAboutVC::~ZEAboutVC() = default;

void ZEAboutVC::setZavoConfiguration(std::shared_ptr<core::ZCZavoConfiguration> configuration)
{
    if (!configuration)
        qFatal("ZEAboutVC: a configuration is required");
    zavoConfiguration_ = std::move(configuration);
}

void ZEAboutVC::loadView()
{
    ViewController::loadView();
    QWidget* page = view();
    if (!page)
        qFatal("ZEAboutVC: no root view to build on");
    page->setAutoFillBackground(true);
    QPalette palette = page->palette();
    palette.setColor(QPalette::Window, Qt::white);
    page->setPalette(palette);

    const std::array<QLabel*, 3> labels{
        makeLabel(applicationLine(), page),
        makeLabel(QStringLiteral("ZavoID SDK v.") + zavoConfiguration_->zavoIDSDKVersion, page),
        makeLabel(QStringLiteral("Zavo SDK v.") + zavoConfiguration_->zavoSDKVersion, page),
    };
    labels[0]->setObjectName(QStringLiteral("applicationLabel"));
    labels[1]->setObjectName(QStringLiteral("zavoIDSDKLabel"));
    labels[2]->setObjectName(QStringLiteral("zavoSDKLabel"));
    new LabelStack(page, labels, SideOffset);
}

void ZEAboutVC::viewWillAppear(bool animated)
{
    Q_UNUSED(animated);
    if (auto navigation = navigationController())
        navigation->setNavigationBarHidden(false);
}

void ZEAboutVC::viewWillDisappear(bool animated)
{
    Q_UNUSED(animated);
    if (auto navigation = navigationController())
        navigation->setNavigationBarHidden(true);
}

}  // namespace zavo
