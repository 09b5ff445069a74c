#include "zavocore/ZCBestShotDetectorProtocol.h"
#include "zavocore/ZCReferenceDetector_p.h"

#include "base/ThreadSafety.h"

namespace zavo::core {

namespace {
// The installed factory; builders may run on any thread.
Guarded<ZCBestShotBuilder::Factory>& installedFactory()
{
    static Guarded<ZCBestShotBuilder::Factory> factory;
    return factory;
}
}  // namespace

ZCBestShotDetectorPtr ZCBestShotBuilder::buildWithDelegate(std::weak_ptr<ZCBestShotDelegate> delegate,
                                                           std::shared_ptr<ZCOnlineLivenessProtocol> livenessAPI,
                                                           std::shared_ptr<ZCZavoConfiguration> configuration)
{
    const Factory factory = installedFactory().get();
    if (factory)
        return factory(std::move(delegate), std::move(livenessAPI), std::move(configuration));
    // The detector keeps its own copy: the host may change its record later.
    const ZCZavoConfiguration settings = configuration ? *configuration : ZCZavoConfiguration();
    return std::make_shared<detail::ZCReferenceDetector>(std::move(delegate), std::move(livenessAPI), settings);
}

void ZCBestShotBuilder::setFactory(Factory factory)
{
    installedFactory().set(std::move(factory));
}

}  // namespace zavo::core
