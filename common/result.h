#pragma once

#include <QString>

#include <optional>
#include <utility>

// A failure is a value: a success flag plus the text the user should read.
class Result
{
public:
    static Result success() { return Result(); }
    static Result failure(QString message) { return Result(std::move(message)); }

    bool isOk() const { return m_ok; }
    explicit operator bool() const { return m_ok; }
    const QString &errorText() const { return m_error; }

private:
    Result() = default;
    explicit Result(QString message) : m_ok(false), m_error(std::move(message)) {}

    bool m_ok = true;
    QString m_error;
};

// A value or the text explaining why there is none.
template <typename T>
class ValueResult
{
public:
    ValueResult(T value) : m_value(std::move(value)) {}
    static ValueResult failure(QString message) { return ValueResult(std::move(message), 0); }

    bool isOk() const { return m_value.has_value(); }
    explicit operator bool() const { return isOk(); }
    const T &value() const { return *m_value; }
    T &value() { return *m_value; }
    const QString &errorText() const { return m_error; }

private:
    ValueResult(QString message, int) : m_error(std::move(message)) {}

    std::optional<T> m_value;
    QString m_error;
};
