#include "camera-screen/ZMStoryboard_p.h"

#include "resources/ZMBundleLink_p.h"
#include "camera-screen/ZMCameraViewController_p.h"

#include <algorithm>
#include <functional>

namespace zavo {

namespace {

struct Scene {
    const char* storyboard;
    const char* identifier;
    std::function<std::shared_ptr<platform::ViewController>()> make;
};

// The forms compiled into the library, and the controller behind each scene.
const std::vector<Scene>& scenes()
{
    static const std::vector<Scene> all{
        {"UI", "ZMCameraViewController", [] { return ZMCameraViewController::create(); }},
    };
    return all;
}

}  // namespace

ZMStoryboard ZMStoryboard::storyboardWithName(const QString& name, const platform::Bundle& bundle)
{
    const bool known = bundle.bundleIdentifier() == ZMBundleLink::bundle().bundleIdentifier()
        && std::any_of(scenes().begin(), scenes().end(),
                       [&](const Scene& scene) { return name == QLatin1String(scene.storyboard); });
    if (!known)
        qFatal("Could not find a storyboard named '%s' in bundle %s", qUtf8Printable(name),
               qUtf8Printable(bundle.bundleIdentifier()));
    return ZMStoryboard(name);
}

std::shared_ptr<platform::ViewController> ZMStoryboard::instantiateViewControllerWithIdentifier(
    const QString& identifier) const
{
    for (const Scene& scene : scenes()) {
        if (name_ == QLatin1String(scene.storyboard) && identifier == QLatin1String(scene.identifier))
            return scene.make();
    }
    qFatal("Storyboard '%s' doesn't contain a view controller with identifier '%s'", qUtf8Printable(name_),
           qUtf8Printable(identifier));
}

}  // namespace zavo
