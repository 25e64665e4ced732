#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

namespace mossly::test {

// Points HOME and the XDG data, cache, config and documents folders at a
// private temporary folder for the whole test process.
void isolateUserDirectories();

// A fresh notes folder that is removed with the object.
class TemporaryNotesFolder {
public:
    TemporaryNotesFolder();
    QString path() const { return dir_.path(); }
    QString filePath(const QString& relative) const { return dir_.filePath(relative); }
    void write(const QString& relative, const QByteArray& bytes) const;
    QByteArray read(const QString& relative) const;
    bool exists(const QString& relative) const;
    // Every entry of the folder tree, hidden ones included, relative and sorted.
    QStringList allEntries() const;

private:
    QTemporaryDir dir_;
};

}  // namespace mossly::test
