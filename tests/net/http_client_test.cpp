// The transport against a real server on loopback: what it refuses to do
// (follow redirects, keep cookies), what it remembers, and how it ends a request.
#include "net/HTTPClient.h"
#include "net/HTTPFailure.h"

#include "support/Wait.h"
#include <QCoroTask>
#include <QNetworkReply>
#include <QTimer>

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

using namespace tessel;
using namespace std::chrono_literals;

namespace {

class LoopbackServer {
public:
    LoopbackServer() {
        server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
        server_.Get("/ok", [](const auto&, auto& res) { res.set_content("fine", "text/plain"); });
        server_.Get(R"(/status/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
            res.status = std::stoi(req.matches[1]);
            res.set_content(req.has_param("body") ? req.get_param_value("body") : "",
                            "application/json");
        });
        server_.Get(R"(/p/(\w+))", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard lock(mutex_);
            auto it = statuses_.find(req.matches[1]);
            res.status = it == statuses_.end() ? 200 : it->second;
            res.set_content("{}", "application/json");
        });
        server_.Get("/redirect", [](const auto&, auto& res) { res.set_redirect("/target", 302); });
        server_.Get("/target", [this](const auto&, auto& res) {
            ++targetHits;
            res.set_content("you followed", "text/plain");
        });
        server_.Get("/binary", [](const auto&, auto& res) {
            res.status = 400;
            res.set_content(std::string("\xff\xfe\x00 bad", 7), "application/octet-stream");
        });
        server_.Get("/stall", [this](const auto&, auto& res) {
            ++stallHits;
            std::unique_lock lock(mutex_);
            released_.wait_for(lock, 10s, [this] { return release_; });
            res.set_content("late", "text/plain");
        });
        server_.Get("/dribble", [](const auto&, auto& res) {
            // Not a text type, so the server doesn't gzip (and so buffer) the dribble.
            res.set_chunked_content_provider("application/octet-stream",
                                             [](size_t offset, httplib::DataSink& sink) {
                                                 std::this_thread::sleep_for(100ms);
                                                 sink.write("x", 1);
                                                 if (offset > 50) {
                                                     sink.done();
                                                 }
                                                 return true;
                                             });
        });
        server_.Get("/cookie", [](const auto&, auto& res) {
            res.set_header("Set-Cookie", "kept=yes; Path=/");
            res.set_content("set", "text/plain");
        });
        server_.Get("/echo-cookie", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content(req.get_header_value("Cookie"), "text/plain");
        });
        server_.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content(req.method + "|" + req.get_header_value("Content-Type") + "|" +
                                req.get_header_value("x-session-token") + "|" + req.body,
                            "text/plain");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::sleep_for(1ms);
        }
    }

    ~LoopbackServer() {
        {
            std::lock_guard lock(mutex_);
            release_ = true;
        }
        released_.notify_all();
        server_.stop();
        thread_.join();
    }

    QUrl url(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port_).arg(path));
    }

    // What GET /p/<name> answers from now on.
    void setStatus(const std::string& name, int status) {
        std::lock_guard lock(mutex_);
        statuses_[name] = status;
    }

    std::atomic<int> targetHits{0};
    std::atomic<int> stallHits{0};

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    std::mutex mutex_;
    std::condition_variable released_;
    bool release_ = false;
    std::map<std::string, int> statuses_;
};

HTTPRequest get(const QUrl& url) {
    HTTPRequest request;
    request.url = url;
    return request;
}

using test::failureOf;
using test::wait;

template <typename E> const E* as(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const E& e) {
        static thread_local std::optional<E> kept;
        kept.emplace(e);
        return &*kept;
    } catch (...) {
        return nullptr;
    }
}

class HTTPClientTest : public ::testing::Test {
protected:
    LoopbackServer server;
    HTTPClient client;
};

} // namespace

TEST_F(HTTPClientTest, SendReturnsEveryStatusAndCheckedThrowsOutside2xx) {
    const auto ok = wait(client.send(get(server.url("/ok"))));
    EXPECT_EQ(ok.status, 200);
    EXPECT_EQ(ok.body, "fine");

    const QUrl refused = server.url(
        R"(/status/422?body={"error":{"code":"invalid","message":"Title is required."}})");
    const auto response = wait(client.send(get(refused)));
    EXPECT_EQ(response.status, 422);

    try {
        wait(client.checked(get(refused)));
        FAIL() << "a 422 must throw";
    } catch (const HTTPFailure& failure) {
        EXPECT_EQ(failure.status, 422);
        EXPECT_EQ(failure.path, "/status/422");
        EXPECT_EQ(failure.code, "invalid");
        EXPECT_EQ(failure.humanLine(), "Title is required.");
    }
    ASSERT_TRUE(client.latestFailure());
    EXPECT_TRUE(client.latestFailure()->detailLine.endsWith("/status/422"));
}

TEST_F(HTTPClientTest, RedirectIsReturnedAsAFailureAndNeverFollowed) {
    try {
        wait(client.checked(get(server.url("/redirect"))));
        FAIL() << "a 302 must throw";
    } catch (const HTTPFailure& failure) {
        EXPECT_EQ(failure.status, 302);
    }
    EXPECT_EQ(server.targetHits.load(), 0);
}

TEST_F(HTTPClientTest, BodyThatIsNotUTF8IsUnreadable) {
    try {
        wait(client.checked(get(server.url("/binary"))));
        FAIL();
    } catch (const HTTPFailure& failure) {
        EXPECT_EQ(failure.detail, "Unreadable response");
        EXPECT_EQ(failure.serverMessage, "Unreadable response");
    }
}

TEST_F(HTTPClientTest, FailureMemoryIsPerPathAndForgetsOnSuccess) {
    auto hit = [&](const char* name) {
        wait(client.send(get(server.url(QStringLiteral("/p/") + name))));
    };
    auto latestPath = [&]() -> QString {
        const auto latest = client.latestFailure();
        return latest ? latest->detailLine.section(QStringLiteral(" · "), -1) : QString();
    };
    server.setStatus("a", 500);
    server.setStatus("b", 404);
    hit("a");
    hit("b");
    EXPECT_EQ(latestPath(), "/p/b");
    hit("a"); // a newer failure moves its path to the end
    EXPECT_EQ(latestPath(), "/p/a");
    server.setStatus("a", 200);
    hit("a"); // a success forgets only its own path
    EXPECT_EQ(latestPath(), "/p/b");
    server.setStatus("b", 204);
    hit("b");
    EXPECT_FALSE(client.latestFailure());
}

TEST_F(HTTPClientTest, AtMostSixteenPathsAreRemembered) {
    for (const int count : {16, 17}) {
        HTTPClient fresh(client.session());
        for (int i = 0; i < count; ++i) {
            server.setStatus("k" + std::to_string(i), 500);
            wait(fresh.send(get(server.url(QStringLiteral("/p/k%1").arg(i)))));
        }
        // Clear every path but the oldest; whether it is still there shows the bound.
        for (int i = count - 1; i >= 1; --i) {
            server.setStatus("k" + std::to_string(i), 200);
            wait(fresh.send(get(server.url(QStringLiteral("/p/k%1").arg(i)))));
            server.setStatus("k" + std::to_string(i), 500);
        }
        server.setStatus("k0", 500);
        if (count == 16) {
            ASSERT_TRUE(fresh.latestFailure());
            EXPECT_TRUE(fresh.latestFailure()->detailLine.endsWith("/p/k0"));
        } else {
            EXPECT_FALSE(fresh.latestFailure()) << "the 17th path pushes out the oldest";
        }
    }
}

TEST_F(HTTPClientTest, RetainedFailuresOutliveSuccessUntilCleared) {
    const HTTPClient uploads = client.withRetainedFailures();
    EXPECT_EQ(uploads.session(), client.session());

    server.setStatus("seg", 503);
    wait(uploads.send(get(server.url("/p/seg"))));
    server.setStatus("seg", 200);
    wait(uploads.send(get(server.url("/p/seg"))));
    ASSERT_TRUE(uploads.latestFailure());
    EXPECT_EQ(uploads.latestFailure()->humanLine, HTTPFailure::serverUnavailableLine);
    EXPECT_FALSE(client.latestFailure()) << "the two clients keep separate memories";

    uploads.clearFailures();
    EXPECT_FALSE(uploads.latestFailure());
}

TEST_F(HTTPClientTest, CookiesAreNeverKept) {
    wait(client.send(get(server.url("/cookie"))));
    EXPECT_EQ(wait(client.send(get(server.url("/echo-cookie")))).body, "");
}

TEST_F(HTTPClientTest, RequestGoesOutAsTheCallerBuiltIt) {
    HTTPRequest request = get(server.url("/echo"));
    request.method = "POST";
    request.body = R"({"a":1})";
    request.setHeader("Content-Type", "application/json");
    request.setHeader("x-session-token", "vses_abc");
    EXPECT_EQ(wait(client.checked(request)), R"(POST|application/json|vses_abc|{"a":1})");

    request.headers.clear();
    request.setHeader("Content-Type", "audio/aac");
    EXPECT_EQ(wait(client.checked(request)), R"(POST|audio/aac||{"a":1})");
}

TEST(HTTPClientTransport, RefusedConnectionIsRecordedUnderItsPath) {
    // Bind then close a socket, so the port is known to have no listener.
    int port = 0;
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t length = sizeof address;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        ::close(fd);
    }
    HTTPClient client;
    const auto error =
        failureOf(client.send(get(QUrl(QStringLiteral("http://127.0.0.1:%1/x/y").arg(port)))));
    ASSERT_TRUE(as<URLError>(error));
    ASSERT_TRUE(client.latestFailure());
    EXPECT_EQ(client.latestFailure()->humanLine, HTTPFailure::serverUnavailableLine);
    EXPECT_TRUE(client.latestFailure()->detailLine.endsWith(" · /x/y"));
}

TEST(HTTPClientTransport, AnswerThatIsNotHTTPIsRefused) {
    HTTPClient client;
    const auto error = failureOf(client.send(get(QUrl(QStringLiteral("data:,hello")))));
    const auto* tessel = as<TesselError>(error);
    ASSERT_TRUE(tessel);
    EXPECT_EQ(tessel->message(), "No HTTP response — check the server URL and retry.");
}

TEST(HTTPClientLimits, StalledServerEndsAfterInactivityAndDribblerAfterTotal) {
    LoopbackServer server;
    HTTPClient client(std::make_shared<HTTPSession>(HTTPSession::Options{0.3, 1.0, {}}));

    auto started = monotonicNow();
    auto error = failureOf(client.send(get(server.url("/stall"))));
    ASSERT_TRUE(as<URLError>(error));
    EXPECT_EQ(as<URLError>(error)->errorCode(), QNetworkReply::TimeoutError);
    EXPECT_LT(monotonicNow() - started, 5.0);
    EXPECT_TRUE(client.latestFailure()->detailLine.endsWith("/stall"));

    // A byte every 0.1 s never trips the inactivity limit; the whole limit ends it.
    started = monotonicNow();
    error = failureOf(client.send(get(server.url("/dribble"))));
    ASSERT_TRUE(as<URLError>(error));
    EXPECT_GE(monotonicNow() - started, 0.9);
    EXPECT_LT(monotonicNow() - started, 4.0);

    // The caller's own shorter limit wins over the session's.
    HTTPClient patient(std::make_shared<HTTPSession>(HTTPSession::Options{30, 90, {}}));
    HTTPRequest request = get(server.url("/stall"));
    request.timeout = 0.2;
    started = monotonicNow();
    ASSERT_TRUE(as<URLError>(failureOf(patient.send(request))));
    EXPECT_LT(monotonicNow() - started, 5.0);
}

TEST(HTTPClientCancellation, CancelMidRequestAbortsAndRecordsNothing) {
    LoopbackServer server;
    HTTPClient client;
    CancellationToken token;
    QTimer::singleShot(0, [&] {
        // Cancel once the server holds the request.
        auto* poll = new QTimer;
        QObject::connect(poll, &QTimer::timeout, [&, poll] {
            if (server.stallHits.load() > 0) {
                token.cancel();
                poll->deleteLater();
            }
        });
        poll->start(5);
    });
    const auto started = monotonicNow();
    const auto error = failureOf(client.send(get(server.url("/stall")), token));
    EXPECT_TRUE(as<Cancelled>(error));
    EXPECT_LT(monotonicNow() - started, 5.0);
    EXPECT_FALSE(client.latestFailure());

    // A token cancelled before the request sends nothing at all.
    const int before = server.stallHits.load();
    EXPECT_TRUE(as<Cancelled>(failureOf(client.send(get(server.url("/stall")), token))));
    EXPECT_EQ(server.stallHits.load(), before);
}
