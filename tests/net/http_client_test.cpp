// The transport against a real server on loopback: what it refuses to do
// (follow redirects, keep cookies), what it remembers, and how it ends a request.
#include "net/HTTPClient.h"
#include "net/HTTPFailure.h"

#include "support/DevServer.h"
#include "support/Wait.h"

#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

using namespace tessel;
using namespace std::chrono_literals;
using test::failureOf;
using test::wait;

namespace {

class LoopbackServer {
public:
    LoopbackServer() {
        server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
        // GET /p/<name>: what `answer` set for it, or 200 "{}".
        server_.Get(R"(/p/(\w+))", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard lock(mutex_);
            const auto [status, body] = answers_[req.matches[1]];
            res.status = status ? status : 200;
            res.set_content(status ? body : "{}", "application/json");
        });
        server_.Get("/redirect", [](const auto&, auto& res) { res.set_redirect("/target", 302); });
        server_.Get("/target", [this](const auto&, auto& res) {
            ++targetHits;
            res.set_content("you followed", "text/plain");
        });
        server_.Get("/cookie", [](const httplib::Request& req, httplib::Response& res) {
            res.set_header("Set-Cookie", "kept=yes; Path=/");
            res.set_content(req.get_header_value("Cookie"), "text/plain");
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
    void answer(const std::string& name, int status, const std::string& body = "{}") {
        std::lock_guard lock(mutex_);
        answers_[name] = {status, body};
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
    std::map<std::string, std::pair<int, std::string>> answers_;
};

// A bare HTTP/1.1 server on a socket of its own, one connection at a time: it
// answers every request "ok" on a kept-alive connection, except the one numbered
// `silentAt`, which it reads whole and then closes the connection on without a
// byte of answer, as when a server acted and the answer was lost. A request on a
// connection idle for more than `idleClose` seconds meets the same end, as when
// the server's close of an idle connection crossed it on the way.
class SilentServer {
public:
    explicit SilentServer(int silentAt, double idleClose = 1e9)
        : silentAt_(silentAt), idleClose_(idleClose) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
        ::listen(listener_, 8);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~SilentServer() {
        stopping_ = true;
        thread_.join();
        ::close(listener_);
    }

    QUrl url(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port_).arg(path));
    }
    // The connection (counted from 1) each request arrived on, in order.
    std::vector<int> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    // Waits for `fd` to be readable while the server runs.
    bool readable(int fd) const {
        pollfd entry{fd, POLLIN, 0};
        while (!stopping_) {
            if (::poll(&entry, 1, 20) > 0) {
                return true;
            }
        }
        return false;
    }

    // Appends what arrives on `fd`; false once the peer closed or the server stops.
    bool receive(int fd, std::string& buffer) const {
        char chunk[4096];
        const ssize_t n = readable(fd) ? ::recv(fd, chunk, sizeof chunk, 0) : 0;
        if (n > 0) {
            buffer.append(chunk, static_cast<size_t>(n));
        }
        return n > 0;
    }

    void serve() {
        for (int connection = 1; readable(listener_); ++connection) {
            const int fd = ::accept(listener_, nullptr, nullptr);
            std::string buffer;
            std::optional<double> answered;
            for (;;) {
                const auto end = buffer.find("\r\n\r\n");
                const auto lengthAt = buffer.find("Content-Length: ");
                const size_t length = lengthAt < end ? std::stoul(buffer.substr(lengthAt + 16)) : 0;
                if (end == std::string::npos || buffer.size() < end + 4 + length) {
                    if (!receive(fd, buffer)) {
                        break;
                    }
                    continue;
                }
                buffer.erase(0, end + 4 + length);
                std::unique_lock lock(mutex_);
                requests_.push_back(connection);
                const bool silent = static_cast<int>(requests_.size()) == silentAt_ ||
                                    (answered && monotonicNow() - *answered > idleClose_);
                lock.unlock();
                if (silent) {
                    break;
                }
                const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
                ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
                answered = monotonicNow();
            }
            ::close(fd);
        }
    }

    const int silentAt_;
    const double idleClose_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::vector<int> requests_;
    std::thread thread_;
};

HTTPRequest get(const QUrl& url) {
    HTTPRequest request;
    request.url = url;
    return request;
}

template <typename E> std::optional<E> as(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const E& e) {
        return e;
    } catch (...) {
    }
    return std::nullopt;
}

class HTTPClientTest : public ::testing::Test {
protected:
    LoopbackServer server;
    HTTPClient client;

    // GET /p/<name> after setting its answer; the failure, if any.
    std::exception_ptr hit(HTTPClient& on, const std::string& name, int status) {
        server.answer(name, status);
        return failureOf(on.send(get(server.url(QString::fromStdString("/p/" + name)))));
    }
    static QString latestPath(const HTTPClient& on) {
        const auto latest = on.latestFailure();
        return latest ? latest->detailLine.section(QStringLiteral(" · "), -1) : QString();
    }
};

} // namespace

TEST_F(HTTPClientTest, SendReturnsAnyStatusAndCheckedThrowsOutside2xx) {
    server.answer("ok", 200, "fine");
    const auto ok = wait(client.send(get(server.url("/p/ok"))));
    EXPECT_EQ(ok.status, 200);
    EXPECT_EQ(ok.body, "fine");

    server.answer("refused", 422, R"({"error":{"code":"invalid","message":"Title is required."}})");
    EXPECT_EQ(wait(client.send(get(server.url("/p/refused")))).status, 422);
    const auto failure = as<HTTPFailure>(failureOf(client.checked(get(server.url("/p/refused")))));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->status, 422);
    EXPECT_EQ(failure->path, "/p/refused");
    EXPECT_EQ(failure->code, "invalid");
    EXPECT_EQ(failure->humanLine(), "Title is required.");
    EXPECT_EQ(latestPath(client), "/p/refused");

    server.answer("binary", 400, std::string("\xff\xfe\x00 bad", 7));
    const auto binary = as<HTTPFailure>(failureOf(client.checked(get(server.url("/p/binary")))));
    ASSERT_TRUE(binary);
    EXPECT_EQ(binary->detail, "Unreadable response");
    EXPECT_EQ(binary->serverMessage, "Unreadable response");
}

TEST_F(HTTPClientTest, NeverFollowsARedirectNorKeepsACookie) {
    const auto redirect = as<HTTPFailure>(failureOf(client.checked(get(server.url("/redirect")))));
    ASSERT_TRUE(redirect);
    EXPECT_EQ(redirect->status, 302);
    EXPECT_EQ(server.targetHits.load(), 0);

    wait(client.send(get(server.url("/cookie"))));
    EXPECT_EQ(wait(client.send(get(server.url("/cookie")))).body, "");
}

TEST_F(HTTPClientTest, FailureMemoryIsPerPathBoundedAndForgetsOnSuccessUnlessRetained) {
    hit(client, "a", 500);
    hit(client, "b", 404);
    EXPECT_EQ(latestPath(client), "/p/b");
    hit(client, "a", 500); // a newer failure moves its path to the end
    EXPECT_EQ(latestPath(client), "/p/a");
    hit(client, "a", 200); // a success forgets only its own path
    EXPECT_EQ(latestPath(client), "/p/b");
    hit(client, "b", 204);
    EXPECT_FALSE(client.latestFailure());

    // Fail `count` paths, clear all but the oldest: whether it is left shows the bound.
    for (const int count : {16, 17}) {
        HTTPClient fresh(client.session());
        for (int i = 0; i < count; ++i) {
            hit(fresh, "k" + std::to_string(i), 500);
        }
        for (int i = count - 1; i >= 1; --i) {
            hit(fresh, "k" + std::to_string(i), 200);
        }
        EXPECT_EQ(latestPath(fresh), count == 16 ? "/p/k0" : "") << count << " paths";
    }

    // The uploads' client keeps a failure past a success, on the same session.
    HTTPClient uploads = client.withRetainedFailures();
    EXPECT_EQ(uploads.session(), client.session());
    hit(uploads, "seg", 503);
    hit(uploads, "seg", 200);
    ASSERT_TRUE(uploads.latestFailure());
    EXPECT_EQ(uploads.latestFailure()->humanLine, HTTPFailure::serverUnavailableLine);
    EXPECT_FALSE(client.latestFailure()) << "the two clients keep separate memories";
    uploads.clearFailures();
    EXPECT_FALSE(uploads.latestFailure());
}

TEST(HTTPClientTransport, NoServerOrNoHTTPAtAllFails) {
    HTTPClient client;
    // Nothing listens on port 1 of loopback: refused, and recorded under its path.
    EXPECT_TRUE(as<URLError>(failureOf(client.send(get(QUrl("http://127.0.0.1:1/x/y"))))));
    ASSERT_TRUE(client.latestFailure());
    EXPECT_EQ(client.latestFailure()->humanLine, HTTPFailure::serverUnavailableLine);
    EXPECT_TRUE(client.latestFailure()->detailLine.endsWith(" · /x/y"));

    const auto notHTTP = as<TesselError>(failureOf(client.send(get(QUrl("data:,hello")))));
    ASSERT_TRUE(notHTTP);
    EXPECT_EQ(notHTTP->message(), "No HTTP response — check the server URL and retry.");
}

TEST_F(HTTPClientTest, StalledServerEndsAfterInactivityAndDribblerAfterTotal) {
    HTTPClient impatient(std::make_shared<HTTPSession>(HTTPSession::Options{0.6, 1.5, {}}));

    auto started = monotonicNow();
    auto error = as<URLError>(failureOf(impatient.send(get(server.url("/stall")))));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorCode(), URLError::timedOut);
    EXPECT_LT(monotonicNow() - started, 5.0);
    EXPECT_TRUE(impatient.latestFailure()->detailLine.endsWith("/stall"));

    // A byte every 0.1 s never trips the inactivity limit, even on a slow
    // sanitizer build; the whole limit ends it.
    started = monotonicNow();
    EXPECT_TRUE(as<URLError>(failureOf(impatient.send(get(server.url("/dribble"))))));
    EXPECT_GE(monotonicNow() - started, 1.4);
    EXPECT_LT(monotonicNow() - started, 5.0);

    // The caller's own shorter limit wins over the session's.
    HTTPClient patient(std::make_shared<HTTPSession>(HTTPSession::Options{30, 90, {}}));
    HTTPRequest request = get(server.url("/stall"));
    request.timeout = 0.2;
    started = monotonicNow();
    EXPECT_TRUE(as<URLError>(failureOf(patient.send(request))));
    EXPECT_LT(monotonicNow() - started, 5.0);
}

TEST_F(HTTPClientTest, CancelMidRequestAbortsAndRecordsNothing) {
    CancellationToken token;
    // Cancel once the server holds the request.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (server.stallHits.load() > 0) {
            token.cancel();
            poll.stop();
        }
    });
    poll.start(5);
    const auto started = monotonicNow();
    EXPECT_TRUE(as<Cancelled>(failureOf(client.send(get(server.url("/stall")), token))));
    EXPECT_LT(monotonicNow() - started, 5.0);
    EXPECT_FALSE(client.latestFailure());

    // A token cancelled before the request sends nothing at all.
    const int before = server.stallHits.load();
    EXPECT_TRUE(as<Cancelled>(failureOf(client.send(get(server.url("/stall")), token))));
    EXPECT_EQ(server.stallHits.load(), before);
}

TEST(HTTPClientTransport, ARequestWhoseAnswerIsLostLeavesOnceOnAFreshOrAReusedConnection) {
    for (const char* method : {"POST", "PUT"}) {
        for (const bool reused : {false, true}) {
            SCOPED_TRACE(std::string(method) + (reused ? " on a reused connection" : " fresh"));
            SilentServer server(reused ? 2 : 1);
            HTTPClient client;
            HTTPRequest request = get(server.url("/act"));
            request.method = method;
            request.body = R"({"action":"stop"})";
            request.setHeader("Content-Type", "application/json");
            if (reused) {
                EXPECT_EQ(wait(client.send(request)).status, 200);
            }
            const auto error = as<URLError>(failureOf(client.send(request)));
            ASSERT_TRUE(error);
            EXPECT_EQ(error->errorCode(), URLError::connectionClosed);
            const std::vector<int> arrived = reused ? std::vector<int>{1, 1} : std::vector<int>{1};
            EXPECT_EQ(server.requests(), arrived) << "the lost request never arrives again";
            ASSERT_TRUE(client.latestFailure());
            EXPECT_EQ(client.latestFailure()->humanLine, HTTPFailure::serverUnavailableLine);
        }
    }
}

// A server that closes idle connections a little after the client stops reusing
// them (5 s and 4 s in use, 1.5 s and 1 s here): a connection idle between the
// two is not reused, one idle for less still is.
TEST(HTTPClientTransport, AConnectionIdlePastTheLimitIsNotReused) {
    SilentServer server(0, 1.5);
    HTTPSession::Options options;
    options.reuseIdleSeconds = 1;
    HTTPClient client(std::make_shared<HTTPSession>(options));
    const HTTPRequest request = get(server.url("/act"));
    EXPECT_EQ(wait(client.send(request)).status, 200);
    EXPECT_EQ(wait(client.send(request)).status, 200);
    wait(sleepFor(1.7));
    const auto error = failureOf(client.send(request));
    EXPECT_FALSE(error) << "sent into the closing connection";
    EXPECT_EQ(server.requests(), (std::vector<int>{1, 1, 2}));
}

TEST(HTTPClientTransport, TrustsTheExtraCertificateOfTheSessionAndNothingElse) {
    test::DevServer server(test::DevServer::Options{.https = true});
    const QUrl calls(QString::fromStdString(server.meetBase() + "/api/v1/meetings"));
    HTTPClient trusting(std::make_shared<HTTPSession>(
        HTTPSession::Options{30, 90, QString::fromStdString(server.certPath())}));
    EXPECT_EQ(wait(trusting.send(get(calls))).status, 401) << "a TLS exchange without a token";

    const auto refused = as<URLError>(failureOf(HTTPClient().send(get(calls))));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->errorCode(), URLError::tlsFailed);
}

// A download follows redirects, but never from HTTPS down to plain HTTP: the
// file would arrive in clear text and could be anything.
TEST(HTTPClientTransport, ADownloadFollowsRedirectsOnlyToHTTPS) {
    test::DevServer secure(test::DevServer::Options{.https = true});
    LoopbackServer plain;
    HTTPClient client(std::make_shared<HTTPSession>(
        HTTPSession::Options{30, 90, QString::fromStdString(secure.certPath())}));
    secure.control("faults", {{"route", "list"},
                              {"count", 1},
                              {"mode", "redirect"},
                              {"location", plain.url("/target").toString().toStdString()}});
    QTemporaryDir dir;
    const QUrl calls(QString::fromStdString(secure.meetBase() + "/api/v1/meetings"));
    const auto refused = as<URLError>(failureOf(client.download(calls, dir.filePath("file"))));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->errorCode(), URLError::protocolFailure);
    EXPECT_TRUE(refused->description().contains(plain.url("/target").toString()))
        << refused->description().toStdString();
    EXPECT_EQ(plain.targetHits.load(), 0);
}
