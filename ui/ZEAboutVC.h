#pragma once
// A screen a host can push onto its navigation stack to show which versions
// are running: its own name and version, and the two SDK versions of the core
// framework's configuration.
#include "base/ZavoExport.h"
#include "shell/ViewController.h"
#include "zavocore/ZCZavoConfiguration.h"

#include <QSizeF>
#include <memory>

namespace zavo {

class ZAVO_EXPORT ZEAboutVC : public platform::ViewController {
public:
    /// zavoConfig must not be null.
    explicit ZEAboutVC(std::shared_ptr<core::ZCZavoConfiguration> zavoConfig);
    ~ZEAboutVC() override;

    /// Margins and spacing of the labels, in points.
    const double SideOffset = 20.0;
    /// Kept for hosts; the screen has no switch.
    const QSizeF SwitchSize{50, 30};

    /// Read when the view is built; changing it later does not refresh the
    /// labels.
    std::shared_ptr<core::ZCZavoConfiguration> zavoConfiguration() const { return zavoConfiguration_; }
    void setZavoConfiguration(std::shared_ptr<core::ZCZavoConfiguration> configuration);

protected:
    /// A white page with three labels stacked from the top: the host's
    /// "<name> v.<version>(<build>)", "ZavoID SDK v.<version>" and
    /// "Zavo SDK v.<version>". The host's version and build must be set
    /// (QCoreApplication::setApplicationVersion and the application property
    /// "CFBundleVersion"); the program stops without them.
    void loadView() override;
    /// Show the navigation bar while this screen is up (the camera screen runs
    /// without it), so the user can go back.
    void viewWillAppear(bool animated) override;
    void viewWillDisappear(bool animated) override;

private:
    std::shared_ptr<core::ZCZavoConfiguration> zavoConfiguration_;
};

}  // namespace zavo
