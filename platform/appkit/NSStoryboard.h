// Storyboards: a named description of a scene, found in a bundle, whose initial view
// controller is made by class name.
//
// A storyboard named N is the file "N.storyboard.json" in the bundle's Resources folder (or
// at the bundle's top). It is a JSON object; the key "initialController" names the class of the
// initial view controller:
//
//     { "initialController": "MyViewController" }
//
// Classes are made through a registry of factories that the program fills at start-up with
// `registerViewControllerClass` (there is no reflection to find them by name).
#pragma once

#include <QString>
#include <functional>
#include <memory>

class NSBundle;
class NSViewController;

using NSViewControllerFactory = std::function<std::shared_ptr<NSViewController>()>;

class NSStoryboard {
public:
    NSStoryboard(QString name, QString path, QString initialControllerClass);

    // The storyboard `name` of `bundle` (the main bundle when none is given); none when the
    // bundle has no such file or the name is empty or holds a '/'. A file that is found but
    // unreadable or not a JSON object still gives a storyboard, one without an initial
    // controller (and an error line).
    static std::shared_ptr<NSStoryboard> storyboardWithName(
        const QString& name, const std::shared_ptr<NSBundle>& bundle = nullptr);

    // A new instance of the initial controller's class; none, with an error line, when the
    // storyboard names no class, the class is not registered or its factory makes nothing.
    std::shared_ptr<NSViewController> instantiateInitialController() const;

    const QString& name() const { return name_; }
    const QString& path() const { return path_; }
    const QString& initialControllerClass() const { return initialControllerClass_; }

    // The class registry. Registering a name again replaces its factory; an empty factory
    // removes it. Thread-safe.
    static void registerViewControllerClass(const QString& className,
                                            NSViewControllerFactory factory);
    static bool isViewControllerClassRegistered(const QString& className);
    // A new instance of a registered class; none (without a log line) when unknown.
    static std::shared_ptr<NSViewController> makeViewController(const QString& className);

private:
    QString name_;
    QString path_;
    QString initialControllerClass_;
};
