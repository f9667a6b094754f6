// Bundles: a folder that holds a program or an extension with its information dictionary
// ("Info.json") and resources. The main bundle is the folder named by LUMARO_MAIN_BUNDLE, or else
// the folder of the running executable.
#pragma once

#include <QString>
#include <QVariantMap>
#include <memory>

class NSBundle {
public:
    explicit NSBundle(QString path);

    static std::shared_ptr<NSBundle> mainBundle();
    static std::shared_ptr<NSBundle> bundleWithPath(const QString& path);

    const QString& bundlePath() const { return path_; }
    // The bundle's Info.json as a dictionary (empty when missing or unreadable).
    const QVariantMap& infoDictionary() const { return info_; }
    QString bundleIdentifier() const;
    // The path of `name.ext` in the bundle's Resources folder or the bundle itself; empty if
    // neither has it.
    QString pathForResource(const QString& name, const QString& ext) const;

private:
    QString path_;
    QVariantMap info_;
};
