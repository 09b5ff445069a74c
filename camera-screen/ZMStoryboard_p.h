#pragma once
// Scenes of the component's Designer forms, looked up by form name and scene
// identifier the way the builder asks for them. A scene's controller is made
// here; its view is built from the compiled form only when first shown.
#include "base/Bundle_p.h"
#include "shell/ViewController.h"

#include <QString>
#include <memory>

namespace zavo {

class ZMStoryboard {
public:
    /// The form called name in bundle. A form the bundle does not have is a
    /// programming error: the process stops.
    static ZMStoryboard storyboardWithName(const QString& name, const platform::Bundle& bundle);

    QString name() const { return name_; }
    /// A new controller for the scene; an unknown identifier stops the process.
    std::shared_ptr<platform::ViewController> instantiateViewControllerWithIdentifier(const QString& identifier) const;

private:
    explicit ZMStoryboard(QString name) : name_(std::move(name)) {}
    QString name_;
};

}  // namespace zavo
