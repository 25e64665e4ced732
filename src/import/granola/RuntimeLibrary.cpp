#include "RuntimeLibrary.h"

#include <QHash>
#include <mutex>

namespace mossly {

namespace {

std::mutex mutex;
QHash<QString, QString> substitutes;  // file name → the file tests open instead

}  // namespace

Result<RuntimeLibrary> RuntimeLibrary::open(const QString& fileName, const QString& package) {
    QString actual;
    {
        std::lock_guard lock(mutex);
        actual = substitutes.value(fileName, fileName);
    }
    // QLibrary counts its loads; one left unreleased keeps the library for the life of the process.
    auto library = std::make_shared<QLibrary>(actual);
    library->setLoadHints(QLibrary::ResolveAllSymbolsHint);
    if (!library->load()) return fail(Error::libraryUnavailable(fileName, package, library->errorString()));
    return RuntimeLibrary(std::move(library), fileName, package);
}

Result<void*> RuntimeLibrary::lookUp(const char* name) const {
    const QFunctionPointer address = library_->resolve(name);
    if (!address) {
        return fail(Error::libraryUnavailable(
            fileName_, package_, QStringLiteral("it has no %1; it may be too old").arg(QString::fromLatin1(name))));
    }
    return reinterpret_cast<void*>(address);
}

void RuntimeLibrary::substitute(const QString& fileName, const QString& replacement) {
    std::lock_guard lock(mutex);
    if (replacement.isEmpty()) {
        substitutes.remove(fileName);
    } else {
        substitutes.insert(fileName, replacement);
    }
}

}  // namespace mossly
