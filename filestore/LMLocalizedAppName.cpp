#include "filestore/LMLocalizedAppName.h"

#include <QDir>
#include <QFile>
#include <QLocale>
#include <QStringList>

namespace {

QStringList dataDirectories() {
    QStringList dirs;
    const QString home = qEnvironmentVariable("XDG_DATA_HOME");
    dirs << (home.isEmpty() ? QDir::homePath() + QStringLiteral("/.local/share") : home);
    QString system = qEnvironmentVariable("XDG_DATA_DIRS");
    if (system.isEmpty()) {
        system = QStringLiteral("/usr/local/share:/usr/share");
    }
    for (const QString& dir : system.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        dirs << dir;
    }
    return dirs;
}

// Undoes the escapes a desktop entry's string values may carry.
QString unescaped(const QString& value) {
    QString out;
    out.reserve(value.size());
    for (qsizetype i = 0; i < value.size(); ++i) {
        const QChar c = value.at(i);
        if (c != QLatin1Char('\\') || i + 1 == value.size()) {
            out += c;
            continue;
        }
        const QChar next = value.at(++i);
        switch (next.unicode()) {
            case 's':
                out += QLatin1Char(' ');
                break;
            case 'n':
                out += QLatin1Char('\n');
                break;
            case 't':
                out += QLatin1Char('\t');
                break;
            case 'r':
                out += QLatin1Char('\r');
                break;
            default:
                out += next;
                break;
        }
    }
    return out;
}

// The "Name" keys of the [Desktop Entry] group, by key ("Name", "Name[de]", ...).
QHash<QString, QString> nameKeys(const QString& file) {
    QHash<QString, QString> names;
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly)) {
        return names;
    }
    bool inEntry = false;
    while (!f.atEnd()) {
        const QString line = QString::fromUtf8(f.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        if (line.startsWith(QLatin1Char('['))) {
            inEntry = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        const qsizetype eq = line.indexOf(QLatin1Char('='));
        if (!inEntry || eq <= 0) {
            continue;
        }
        const QString key = line.left(eq).trimmed();
        if (key == QLatin1String("Name") || key.startsWith(QLatin1String("Name["))) {
            names.insert(key, unescaped(line.mid(eq + 1).trimmed()));
        }
    }
    return names;
}

}  // namespace

namespace LMExtensions {

QString _lmLocalizedAppNameFromBundleID(const QString& bundleID) {
    if (bundleID.isEmpty() || bundleID.contains(QLatin1Char('/'))) {
        return {};
    }
    const QString entry = QStringLiteral("/applications/") + bundleID + QStringLiteral(".desktop");
    for (const QString& dir : dataDirectories()) {
        const QString file = dir + entry;
        if (!QFile::exists(file)) {
            continue;
        }
        const QHash<QString, QString> names = nameKeys(file);
        const QString locale = QLocale().name();  // "lang_COUNTRY", or "C"
        const QString lang = locale.section(QLatin1Char('_'), 0, 0);
        QString name;
        for (const QString& key : {QStringLiteral("Name[%1]").arg(locale),
                                   QStringLiteral("Name[%1]").arg(lang), QStringLiteral("Name")}) {
            name = names.value(key);
            if (!name.isEmpty()) {
                break;
            }
        }
        if (name.isEmpty()) {
            return {};
        }
        name.replace(QLatin1Char('/'), QLatin1Char('-'));
        name.remove(QChar(0));
        return name;
    }
    return {};
}

}  // namespace LMExtensions
