#pragma once

#include <QString>
#include <QStringList>
#include <cmath>
#include <variant>

namespace mossly {

// One typed front-matter value. The alternatives keep the order of the
// value grammar: string, list of strings, boolean, 64-bit integer, double.
class NoteFrontMatterValue {
public:
    using Storage = std::variant<QString, QStringList, bool, qint64, double>;

    NoteFrontMatterValue(QString value) : value_(std::move(value)) {}
    NoteFrontMatterValue(const char* value) : value_(QString::fromUtf8(value)) {}
    NoteFrontMatterValue(QStringList value) : value_(std::move(value)) {}
    NoteFrontMatterValue(bool value) : value_(value) {}
    NoteFrontMatterValue(qint64 value) : value_(value) {}
    NoteFrontMatterValue(int value) : value_(qint64{value}) {}
    NoteFrontMatterValue(double value) : value_(value) {}

    const Storage& storage() const { return value_; }
    template <typename T>
    bool holds() const {
        return std::holds_alternative<T>(value_);
    }
    template <typename T>
    const T& get() const {
        return std::get<T>(value_);
    }

    // A stored "nan" is the same value wherever it is read, so two NaNs are equal
    // here: otherwise a field that never changed would always look changed.
    bool operator==(const NoteFrontMatterValue& other) const {
        if (holds<double>() && other.holds<double>() && std::isnan(get<double>()) && std::isnan(other.get<double>())) {
            return true;
        }
        return value_ == other.value_;
    }

private:
    Storage value_;
};

}  // namespace mossly
