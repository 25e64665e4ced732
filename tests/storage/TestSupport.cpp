#include "TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <cstdlib>
#include <stdexcept>

namespace mossly::test {

void isolateUserDirectories() {
    static QTemporaryDir home;
    if (!home.isValid()) throw std::runtime_error("cannot create a temporary home folder");
    const auto set = [](const char* name, const QString& path) {
        QDir().mkpath(path);
        ::setenv(name, QFile::encodeName(path).constData(), 1);
    };
    set("HOME", home.path());
    set("XDG_DATA_HOME", home.filePath(".local/share"));
    set("XDG_CACHE_HOME", home.filePath(".cache"));
    set("XDG_CONFIG_HOME", home.filePath(".config"));
    set("XDG_DOCUMENTS_DIR", home.filePath("Documents"));
}

TemporaryNotesFolder::TemporaryNotesFolder() {
    if (!dir_.isValid()) throw std::runtime_error("cannot create a temporary notes folder");
}

void TemporaryNotesFolder::write(const QString& relative, const QByteArray& bytes) const {
    const QString path = filePath(relative);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size()) {
        throw std::runtime_error("cannot write test file");
    }
}

QByteArray TemporaryNotesFolder::read(const QString& relative) const {
    QFile file(filePath(relative));
    if (!file.open(QIODevice::ReadOnly)) throw std::runtime_error("cannot read test file");
    return file.readAll();
}

bool TemporaryNotesFolder::exists(const QString& relative) const { return QFileInfo::exists(filePath(relative)); }

QStringList TemporaryNotesFolder::allEntries() const {
    QStringList entries;
    QDirIterator it(path(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) entries.append(QDir(path()).relativeFilePath(it.next()));
    entries.sort();
    return entries;
}

}  // namespace mossly::test
