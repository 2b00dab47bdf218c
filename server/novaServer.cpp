#include "server/novaServer.h"

#include <sys/socket.h>
#include <array>
#include <atomic>
#include <charconv>
#include <cmath>
#include <random>
#include <thread>

#include "astro/libStrings.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "server/libBoundedServer.h"
#include "server/libDigest.h"
#include "server/libFormData.h"
#include "server/novaReplies.h"

namespace vestrel {

namespace {

using httplib::ContentReader;
using httplib::Request;
using httplib::Response;

/// The status of a request that is refused, and its reason.
class Refusal : public std::runtime_error {
 public:
    Refusal(int status, const std::string& text) : std::runtime_error(text), Status(status) {}
    int Status;
};

void Reply(Response& response, const NovaJson& json, int status = 200) {
    response.status = status;
    // Names of files need not be UTF-8; JSON must be.
    const std::string text = json.dump(-1, ' ', false, NovaJson::error_handler_t::replace);
    response.set_content(WithEscapedControls(text), "application/json");
}

void ReplyError(Response& response, int status, const std::string& text) {
    Reply(response, {{"status", "error"}, {"errormessage", text}}, status);
}

std::string RandomToken() {
    std::random_device source;
    std::string token;
    constexpr int length = 32;
    for (int i = 0; i < length; ++i) token += "0123456789abcdef"[source() % 16];
    return token;
}

/// The name in an address "name:port", also "[::1]:80".
std::string HostName(std::string_view address) {
    const std::size_t bracket = address.rfind(']');
    const std::size_t colon = address.rfind(':');
    const bool hasPort =
        colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket);
    return std::string(hasPort ? address.substr(0, colon) : address);
}

constexpr const char* noSuchPath = "there is nothing at this path";
constexpr const char* contentTypeAsSent = "X-Content-Type-As-Sent";

}  // namespace

/// The paths of the server and their handlers.
class NovaServer::Routes {
 public:
    Routes(const ServerSettings& settings, JobQueue& queue)
        : settings_(settings), queue_(queue), token_(RandomToken()) {
        // By default the library shares the port with any other server that requests it; jobs of
        // clients would then be spread over both.
        server_.set_socket_options([](socket_t listener) {
            const int yes = 1;
            setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        server_.set_payload_max_length(settings.MostBody);
        server_.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                     {"Cache-Control", "no-store"},
                                     {"Accept-Ranges", "none"},
                                     {"Content-Security-Policy",
                                      "default-src 'self'; script-src 'unsafe-inline'; "
                                      "style-src 'unsafe-inline'; frame-ancestors 'none'"}});
        server_.set_pre_routing_handler([this](const Request& request, Response& response) {
            return Admit(request, response);
        });
        AddPosts();
        AddReadings();
        AddFiles();
        RefuseOtherPosts();
    }

    int Start() {
        int port = settings_.Port;
        if (port == 0) {
            port = std::max(server_.bind_to_any_port(settings_.Address), 0);
        } else if (!server_.bind_to_port(settings_.Address, port)) {
            port = 0;
        }
        if (port != 0) listener_ = std::jthread([this] { server_.listen_after_bind(); });
        return port;
    }

    void Stop() {
        server_.stop();
        if (listener_.joinable()) listener_.join();
    }

 private:
    /// Refuses requests that a page from another site makes a browser send. Also hides the content
    /// type from the library, so that bodies arrive unparsed: the library handles neither forms
    /// longer than 8 kB nor parts whose lines end with a line feed alone.
    httplib::Server::HandlerResponse Admit(const Request& request, Response& response) const {
        const std::string host = request.get_header_value("Host");
        const std::string name = HostName(host);
        const std::string origin = request.get_header_value("Origin");
        const bool local = settings_.Address == "127.0.0.1" || settings_.Address == "localhost" ||
                           settings_.Address == "::1";
        const bool known = name.empty() || name == "127.0.0.1" || name == "localhost" ||
                           name == "[::1]" || name == settings_.Address;
        if ((local && !known) || (!origin.empty() && origin != "http://" + host)) {
            ReplyError(response, 403, "this server is for programs and pages of its own machine");
            return httplib::Server::HandlerResponse::Handled;
        }
        // The library reads the body of any other method, whatever its length. Long paths would
        // take the matching of handlers' patterns deep.
        constexpr std::size_t longestPath = 200;
        if ((request.method != "GET" && request.method != "HEAD" && request.method != "POST") ||
            request.path.size() > longestPath) {
            ReplyError(response, 404, noSuchPath);
            return httplib::Server::HandlerResponse::Handled;
        }
        // The library takes any text for a number, and reads on until as many bytes have come.
        const std::string length = request.get_header_value("Content-Length");
        constexpr std::size_t mostDigits = 12;
        if (length.size() > mostDigits ||
            length.find_first_not_of("0123456789") != std::string::npos) {
            ReplyError(response, 400, "the length of the request is none");
            return httplib::Server::HandlerResponse::Handled;
        }
        // The request belongs to the library, where it is not constant.
        auto& headers = const_cast<Request&>(request).headers;  // NOLINT
        const std::string type = request.get_header_value("Content-Type");
        // The library would read until the client ends.
        if (!headers.contains("Content-Length") && !headers.contains("Transfer-Encoding")) {
            headers.emplace("Content-Length", "0");
        }
        headers.erase("Content-Type");
        headers.erase(contentTypeAsSent);
        if (!type.empty()) headers.emplace(contentTypeAsSent, type);
        return httplib::Server::HandlerResponse::Unhandled;
    }

    /// Reads a body within its limit, and within the limit of all requests together.
    class Body {
     public:
        Body(Routes& routes, const ContentReader& reader, std::uint64_t most,
             const Response& response)
            : routes_(routes) {
            bool tooLong = false;
            bool tooMany = false;
            const bool whole = reader([&](const char* data, std::size_t length) {
                tooLong = Text.size() + length > most;
                if (tooLong) return false;
                tooMany =
                    routes_.inFlight_.fetch_add(length) + length > routes_.settings_.MostInFlight;
                counted_ += length;
                if (tooMany) return false;
                Text.append(data, length);
                return true;
            });
            // The library itself refuses bodies that are announced to be too long.
            if (tooLong || (!whole && response.status == 413)) {
                Refuse(413, "the request is too long");
            }
            if (tooMany) Refuse(503, "the server is busy: try again later");
            if (!whole) Refuse(400, "the request does not come whole, or too slowly");
        }
        ~Body() { Release(); }
        Body(const Body&) = delete;
        Body& operator=(const Body&) = delete;

        std::string Text;

     private:
        [[noreturn]] void Refuse(int status, const char* text) {
            Release();
            throw Refusal(status, text);
        }
        void Release() {
            routes_.inFlight_ -= counted_;
            counted_ = 0;
        }
        Routes& routes_;
        std::uint64_t counted_ = 0;
    };

    /// The contents of a request: its `request-json`, and the file of a multipart one.
    struct Form {
        std::string Json;
        const FormPart* File = nullptr;
        std::vector<FormPart> Parts;
    };
    static Form FormOf(const Request& request, const Body& body) {
        Form form;
        if (const auto boundary = BoundaryOf(request.get_header_value(contentTypeAsSent))) {
            auto parts = ParseMultipart(body.Text, *boundary);
            if (!parts) throw Refusal(400, "the multipart body is damaged");
            form.Parts = std::move(*parts);
            for (const FormPart& part : form.Parts) {
                if (part.Name == "request-json") form.Json = part.Body;
                if (part.Name == "file" || (!part.FileName.empty() && form.File == nullptr)) {
                    form.File = &part;
                }
            }
        } else if (const auto field = UrlEncodedField(body.Text, "request-json")) {
            form.Json = *field;
        } else {
            form.Json = body.Text.starts_with("request-json=")
                            ? body.Text.substr(std::string_view("request-json=").size())
                            : body.Text;
        }
        return form;
    }

    static NovaRequest RequestIn(const Form& form) {
        std::string fault;
        auto request = ParseNovaRequest(form.Json, fault);
        if (!request) throw Refusal(400, fault);
        return *std::move(request);
    }

    using PostHandler = std::function<void(const Request&, Response&, const Body&)>;

    void AddPost(const std::string& path, std::uint64_t most, PostHandler handler) {
        server_.Post(path,
                     [this, most, handler = std::move(handler)](
                         const Request& request, Response& response, const ContentReader& reader) {
                         try {
                             const Body body(*this, reader, most, response);
                             handler(request, response, body);
                         } catch (const Refusal& refusal) {
                             ReplyError(response, refusal.Status, refusal.what());
                         } catch (const JobRefused& refusal) {
                             ReplyError(response, refusal.Status, refusal.what());
                         } catch (const std::bad_alloc&) {
                             ReplyError(response, 503, "the server has no memory for this request");
                         }
                     });
    }

    /// Adds a path that needs nothing of a request's body.
    void AddPostOfNothing(const std::string& path, httplib::Server::Handler handler) {
        server_.Post(path,
                     [handler = std::move(handler)](const Request& request, Response& response,
                                                    const ContentReader& reader) {
                         // Many clients look for an answer only when they have sent everything.
                         std::uint64_t left = std::uint64_t{16} << 20;
                         reader([&left](const char*, std::size_t length) {
                             left -= std::min<std::uint64_t>(left, length);
                             return left > 0;
                         });
                         response.status = 200;
                         handler(request, response);
                     });
    }

    void RequireSession(const NovaRequest& request) const {
        if (request.Session != token_) throw Refusal(401, "no session with this key: log in first");
    }

    void AddPosts() {
        constexpr std::uint64_t mostText = std::uint64_t{64} << 20;
        constexpr std::uint64_t mostLogin = 65536;
        AddPost("/api/login/?", mostLogin,
                [this](const Request& request, Response& response, const Body& body) {
                    const std::string key = RequestIn(FormOf(request, body)).ApiKey;
                    if (key.empty() || (!settings_.Key.empty() && key != settings_.Key)) {
                        return ReplyError(response, 200, "bad apikey");
                    }
                    Reply(response, {{"status", "success"},
                                     {"message", "authenticated user: local"},
                                     {"session", token_}});
                });
        AddPost("/api/upload/?", settings_.MostBody,
                [this](const Request& request, Response& response, const Body& body) {
                    const Form form = FormOf(request, body);
                    const NovaRequest asked = RequestIn(form);
                    RequireSession(asked);
                    if (form.File == nullptr) throw Refusal(400, "there is no file in the request");
                    Take(response, asked, form.File->FileName, form.File->Body);
                });
        AddPost("/api/url_upload/?", mostText,
                [this](const Request& request, Response& response, const Body& body) {
                    const NovaRequest asked = RequestIn(FormOf(request, body));
                    RequireSession(asked);
                    if (!asked.Stars) {
                        throw Refusal(400, "this server fetches nothing: upload the picture");
                    }
                    Take(response, asked, asked.Stars->Name, {});
                });
    }

    void Take(Response& response, const NovaRequest& request, const std::string& name,
              std::string_view picture) {
        const int id = queue_.Submit(request, name.empty() ? "picture" : name, picture);
        Reply(response, {{"status", "success"}, {"subid", id}, {"hash", Sha1Of(picture)}});
    }

    using JobHandler = std::function<void(const JobReport&, Response&)>;

    /// Adds a path that ends with the number of a job, for GET and POST.
    void AddReading(const std::string& path, const JobHandler& handler) {
        const auto answer = [this, handler](const Request& request, Response& response) {
            const std::string digits = request.matches[1].str();
            int id = 0;
            const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), id);
            const auto job = read.ec == std::errc() ? queue_.Find(id) : std::nullopt;
            if (!job) return ReplyError(response, 404, "there is no job of this number");
            handler(*job, response);
        };
        server_.Get(path, answer);
        AddPostOfNothing(path, answer);
    }

    void AddReadings() {
        AddReading("/api/submissions/([0-9]+)/?", [](const JobReport& job, Response& response) {
            Reply(response, SubmissionJson(job));
        });
        AddReading("/api/jobs/([0-9]+)/?", [](const JobReport& job, Response& response) {
            Reply(response, {{"status", StateText(job.State)}});
        });
        AddReading("/api/jobs/([0-9]+)/calibration/?",
                   [](const JobReport& job, Response& response) {
                       if (!job.Calibration) {
                           return ReplyError(response, 404, "the job has no solution");
                       }
                       Reply(response, CalibrationJson(*job.Calibration));
                   });
        AddReading("/api/jobs/([0-9]+)/info/?", [](const JobReport& job, Response& response) {
            Reply(response, InfoJson(job));
        });
        server_.Get("/queue", [this](const Request&, Response& response) {
            constexpr std::size_t shown = 100;
            Reply(response, QueueJson(queue_.Latest(shown)));
        });
    }

    void AddFiles() {
        AddReading("/wcs_file/([0-9]+)/?", [](const JobReport& job, Response& response) {
            if (job.Wcs.empty()) return ReplyError(response, 404, "the job has no solution");
            response.set_header("Content-Disposition", "attachment; filename=wcs.fits");
            response.set_content(job.Wcs, "application/fits");
        });
        AddReading("/joblog/([0-9]+)/?", [](const JobReport& job, Response& response) {
            response.set_content(job.Log, "text/plain; charset=utf-8");
        });
        AddReading("/new_fits_file/([0-9]+)/?", [](const JobReport& job, Response& response) {
            std::shared_ptr<std::FILE> file;
            if (!job.NewFits.empty()) file = OpenFile(job.NewFits, "rb");
            const std::int64_t length = file ? FileLength(file.get()) : -1;
            if (length <= 0)
                return ReplyError(response, 404, "the job has no such file, or no longer");
            response.set_header("Content-Disposition", "attachment; filename=new-image.fits");
            response.set_content_provider(
                static_cast<std::size_t>(length), "application/fits",
                [file](std::size_t offset, std::size_t wanted, httplib::DataSink& sink) {
                    std::array<char, 65536> piece{};
                    if (!SeekFile(file.get(), offset)) return false;
                    const std::size_t got =
                        std::fread(piece.data(), 1, std::min(piece.size(), wanted), file.get());
                    return got > 0 && sink.write(piece.data(), got);
                });
        });
        server_.Get("/", [](const Request&, Response& response) {
            response.set_content(ServerPage, "text/html; charset=utf-8");
        });
    }

    /// Without a handler, the library would read their bodies whole.
    void RefuseOtherPosts() {
        AddPostOfNothing("[\\s\\S]*", [](const Request&, Response& response) {
            ReplyError(response, 404, noSuchPath);
        });
    }

    ServerSettings settings_;
    JobQueue& queue_;
    std::string token_;
    std::atomic<std::uint64_t> inFlight_{0};
    BoundedServer server_;
    std::jthread listener_;
};

NovaServer::NovaServer(const ServerSettings& settings, JobQueue& queue)
    : routes_(std::make_unique<Routes>(settings, queue)) {}

NovaServer::~NovaServer() {
    Stop();
}

int NovaServer::Start() {
    return routes_->Start();
}

void NovaServer::Stop() {
    routes_->Stop();
}

}  // namespace vestrel
