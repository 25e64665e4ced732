#pragma once

#include <QLibrary>
#include <QString>
#include <memory>
#include <utility>

#include "Error.h"

namespace mossly {

// A shared library opened when a feature first needs it instead of when the
// program starts, so that commands which never use it do not pay for loading
// it and everything it depends on. An opened library stays loaded for the life
// of the process: libcurl, gnutls and GObject cannot be unloaded safely.
class RuntimeLibrary {
public:
    // Opens `fileName` (a soname such as "libcurl.so.4"). The error says which
    // Debian package provides it.
    static Result<RuntimeLibrary> open(const QString& fileName, const QString& package);

    // Points `function` at the symbol `name`, looked up in this library and in
    // the libraries it loaded. `Function` must be the symbol's exact type
    // (take it with decltype from the library's header).
    template <typename Function>
    Result<void> bind(Function& function, const char* name) const {
        auto address = lookUp(name);
        if (!address) return fail(address.error());
        function = reinterpret_cast<Function>(*address);
        return {};
    }

    // Binds each function to the symbol named after it, in turn:
    // bindAll(open, "open", close, "close"). Fails at the first missing symbol.
    template <typename Function, typename... Rest>
    Result<void> bindAll(Function& function, const char* name, Rest&&... rest) const {
        if (auto bound = bind(function, name); !bound) return bound;
        if constexpr (sizeof...(rest) > 0) {
            return bindAll(std::forward<Rest>(rest)...);
        } else {
            return {};
        }
    }

    // Tests make a library look missing by opening `replacement` in its place;
    // an empty replacement restores the real one.
    static void substitute(const QString& fileName, const QString& replacement);

private:
    RuntimeLibrary(std::shared_ptr<QLibrary> library, QString fileName, QString package)
        : library_(std::move(library)), fileName_(std::move(fileName)), package_(std::move(package)) {}
    Result<void*> lookUp(const char* name) const;

    std::shared_ptr<QLibrary> library_;  // never unloaded
    QString fileName_;
    QString package_;
};

}  // namespace mossly
