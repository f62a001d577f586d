// Runs a task to its end on a nested loop, passing its failure on. (QCoro's own
// waitFor never returns when the awaited task throws.)
#pragma once

#include "async/Async.h"

#include <QEventLoop>

#include <exception>
#include <optional>

namespace tessel::test {

template <typename T> T wait(Task<T> task) {
    QEventLoop loop;
    bool done = false;
    std::exception_ptr failure;
    std::optional<T> result;
    auto runner = [](Task<T> t, QEventLoop& l, bool& d, std::exception_ptr& f,
                     std::optional<T>& r) -> Task<void> {
        try {
            r.emplace(co_await std::move(t));
        } catch (...) {
            f = std::current_exception();
        }
        d = true;
        l.quit();
    };
    runner(std::move(task), loop, done, failure, result);
    if (!done) {
        loop.exec();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    return std::move(*result);
}

inline void wait(Task<void> task) {
    QEventLoop loop;
    bool done = false;
    std::exception_ptr failure;
    auto runner = [](Task<void> t, QEventLoop& l, bool& d, std::exception_ptr& f) -> Task<void> {
        try {
            co_await std::move(t);
        } catch (...) {
            f = std::current_exception();
        }
        d = true;
        l.quit();
    };
    runner(std::move(task), loop, done, failure);
    if (!done) {
        loop.exec();
    }
    if (failure) {
        std::rethrow_exception(failure);
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

} // namespace tessel::test
