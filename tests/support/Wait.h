// Runs a task to its end on a nested loop, passing its failure on. (QCoro's own
// waitFor never returns when the awaited task throws, so the failure is caught
// inside and thrown again outside.)
#pragma once

#include "async/Async.h"
#include "errors/Failures.h"
#include "support/QtPrint.h"

#include <QCoroTask>

#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <variant>

namespace tessel::test {

template <typename T> T wait(Task<T> task) {
    using Result = std::optional<std::conditional_t<std::is_void_v<T>, std::monostate, T>>;
    Result result;
    std::exception_ptr failure;
    // Captureless, everything by parameter: a coroutine keeps no lambda captures.
    QCoro::waitFor([](Task<T> t, Result& r, std::exception_ptr& f) -> Task<void> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(t);
            } else {
                r.emplace(co_await std::move(t));
            }
        } catch (...) {
            f = std::current_exception();
        }
    }(std::move(task), result, failure));
    if (failure) {
        std::rethrow_exception(failure);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*result);
    }
}

// The failure a task ends with, or null when it succeeds.
template <typename T> std::exception_ptr failureOf(Task<T> task) {
    try {
        wait(std::move(task));
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

// The words a failure shows a person, or none when there was no failure.
inline std::optional<QString> wordsOf(const std::exception_ptr& error) {
    if (!error) {
        return std::nullopt;
    }
    try {
        std::rethrow_exception(error);
    } catch (const Failure& failure) {
        return failure.description();
    } catch (const std::exception& other) {
        return QString::fromUtf8(other.what());
    } catch (...) {
        return QStringLiteral("?");
    }
}

// Spins the loop until the condition holds or `seconds` of real time pass.
inline bool eventually(const std::function<bool()>& condition, double seconds = 15) {
    const double deadline = monotonicNow() + seconds;
    while (!condition()) {
        if (monotonicNow() > deadline) {
            return false;
        }
        wait(sleepFor(0.005));
    }
    return true;
}

} // namespace tessel::test
