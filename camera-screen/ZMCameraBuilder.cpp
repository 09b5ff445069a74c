#include "camera-screen/ZMCameraBuilder.h"

#include "resources/ZMBundleLink_p.h"
#include "camera-screen/ZMCameraViewController_p.h"
#include "camera-screen/ZMStoryboard_p.h"
#include "base/Log_p.h"

namespace zavo {

ZMCameraViewControllerPtr ZMCameraBuilder::viewController(std::weak_ptr<ZMCameraDelegate> delegate,
                                                          core::ZCZavoConfigurationPtr configuration,
                                                          std::shared_ptr<core::ZCOnlineLivenessProtocol> livenessAPI,
                                                          std::shared_ptr<ZMCustomization> zavoCustomization,
                                                          bool recordVideo)
{
    if (zavoCustomization && !zavoCustomization->uiCustomizer()) {
        qCCritical(platform::lcScreen, "ZMCameraBuilder: the customization has no uiCustomizer; no screen is made "
                                       "(pass ZMDefaultUICustomizer to keep the built-in views, or no customization)");
        return nullptr;
    }
    if (delegate.expired())
        qCWarning(platform::lcScreen, "ZMCameraBuilder: the delegate is already gone; the screen holds it weakly, so "
                                      "this session's outcome will reach no one (keep the shared_ptr you pass)");
    const platform::Bundle& bundle = ZMBundleLink::bundle();
    const ZMStoryboard storyboard = ZMStoryboard::storyboardWithName(QStringLiteral("UI"), bundle);
    const auto scene = storyboard.instantiateViewControllerWithIdentifier(QStringLiteral("ZMCameraViewController"));
    auto screen = std::dynamic_pointer_cast<ZMCameraViewController>(scene);
    if (!screen)
        qFatal("The scene 'ZMCameraViewController' of storyboard 'UI' is not a ZMCameraViewController");

    screen->setDelegate(std::move(delegate));
    screen->setConfiguration(std::move(configuration));
    screen->setOnlineLiveness(std::move(livenessAPI));
    screen->setZavoCustomization(std::move(zavoCustomization));
    // The first read builds the capture manager; nothing is configured or
    // started until the host shows the screen.
    screen->captureManager()->setRecordVideo(recordVideo);
    return screen;
}

}  // namespace zavo
