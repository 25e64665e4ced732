#include "RuntimeLibrary.h"

#include <QHash>
#include <dlfcn.h>
#include <mutex>

namespace mossly {

namespace {

std::mutex mutex;
QHash<QString, void*> opened;         // by the file name actually opened
QHash<QString, QString> substitutes;  // file name → the file tests open instead

QString lastLoaderError() {
    const char* text = dlerror();
    return text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown error");
}

}  // namespace

Result<RuntimeLibrary> RuntimeLibrary::open(const QString& fileName, const QString& package) {
    std::lock_guard lock(mutex);
    const QString actual = substitutes.value(fileName, fileName);
    void* handle = opened.value(actual);
    if (!handle) {
        handle = dlopen(actual.toLocal8Bit().constData(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) return fail(Error::libraryUnavailable(fileName, package, lastLoaderError()));
        opened.insert(actual, handle);
    }
    return RuntimeLibrary(handle, fileName, package);
}

Result<void*> RuntimeLibrary::lookUp(const char* name) const {
    dlerror();
    void* address = dlsym(handle_, name);
    if (!address) {
        return fail(Error::libraryUnavailable(
            fileName_, package_, QStringLiteral("it has no %1; it may be too old").arg(QString::fromLatin1(name))));
    }
    return address;
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
