// A drop box for files over HTTP: uploads go straight to the disk, downloads come straight from it, and memory stays
// the same whatever their size. Options: --bind, --port (0: any free one), --directory (one server each), --threads;
// --tls_cert_path and --tls_key_path for https. There is no authentication: keep it on loopback.
//
//   GET /                 an upload form           POST /files          stores the files of a multipart/form-data body
//   GET /files            the list, as JSON        GET /files/:name     one file
//                                                  DELETE /files/:name  removes it

#include "core/fs/ZnDir.h"
#include "core/io/ZnFile.h"
#include "core/io/http/ZnHttpApp.h"
#include "core/platform/ZnDirPlatform.h"
#include "core/platform/ZnFilePlatform.h"
#include "core/platform/ZnFileReader.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/runtime/ZnThreadPool.h"
#include "core/types/ZnJsonArray.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxNameBytes = 200; // file systems take 255
constexpr int kUploadMs = 60 * 60 * 1000;
constexpr const char* kForm = R"(<!doctype html><meta charset="utf-8"><title>File drop</title>
<form method="post" action="/files" enctype="multipart/form-data">
<input type="file" name="file" multiple required> <button>Upload</button></form><p><a href="/files">Files</a></p>
)";

// --- names: one that came from a peer is refused rather than repaired, so that two never become the same

bool isSafeByte(char c) noexcept {
    // "/" and "\" separate directories; '"' is left of a name that the form's syntax has cut; the rest is for
    // terminals.
    return static_cast<unsigned char>(c) >= 0x20 && c != 0x7F && c != '/' && c != '\\' && c != '"';
}

/// Whether a file may have this name. A "." in front is for "..", and for the directory of unfinished uploads.
bool isSafeName(const ZnString& name) {
    return !name.isEmpty() && name.size() <= kMaxNameBytes && name[0] != '.' &&
           std::all_of(name.begin(), name.end(), isSafeByte) &&
           ZnString::fromWCharArray(name.toStdWString().c_str()) == name; // well-formed UTF-8: it goes into JSON
}

/// A name that is only told, in JSON: with what is no UTF-8 replaced.
ZnString tellable(const ZnString& name) {
    return ZnString::fromWCharArray(name.toStdWString());
}

ZnString percentEncoded(const ZnString& name) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isPlain = (byte | 0x20) >= 'a' && (byte | 0x20) <= 'z';
        if (isPlain || (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_')
            encoded += c;
        else
            (encoded += '%').append({kDigits[byte >> 4], kDigits[byte & 15]});
    }
    return ZnString(std::move(encoded));
}

/// Percent-encoded, a name can neither end its quotes nor its line.
ZnString attachmentOf(const ZnString& name) {
    return "attachment; filename*=UTF-8''" + percentEncoded(name);
}

// --- the files

/// One directory of files. Unfinished uploads are in a directory inside it: in the same file system, so that a finished
/// one gets its name without being copied.
/// Thread: any, because the handlers run on a pool; nothing changes after construction.
class Store {
public:
    explicit Store(const ZnString& directory)
        : directory_(znDirPlatform()->absolutePath(directory) + "/"), incoming_(directory_ + ".incoming") {}

    bool prepare() const { return ZnDir::mkpathAt(incoming_, false); }
    const ZnString& incoming() const { return incoming_; }

    /// What a server that was killed has left behind.
    void removeLeftovers() const {
        for (const ZnString& name : znDirPlatform()->entryList(incoming_, {"*.part"}, ZnDirPlatform::kFiles))
            znFilePlatform()->remove(incoming_ + "/" + name);
    }

    ZnString pathOf(const ZnString& name) const { return directory_ + name; }

    /// Gives an uploaded file its name. A link and not a rename: it fails when anything has the name, even a symbolic
    /// link that leads elsewhere. The temporary name is removed when the framework has answered the request.
    std::error_code keep(const ZnHttpMultipartPart& part) const {
        std::error_code error;
        fs::create_hard_link(part.tempFilePath.str(), pathOf(part.fileName).str(), error);
        return !error || error == std::errc::file_exists ? error : moveTo(pathOf(part.fileName), part);
    }

    ZnJsonArray list() const {
        ZnJsonArray files;
        std::error_code error;
        for (fs::directory_iterator at(directory_.str(), error), end; !error && at != end; at.increment(error)) {
            std::error_code gone; // meanwhile
            const ZnString name(at->path().filename().string());
            const auto size = at->is_regular_file(gone) ? at->file_size(gone) : 0;
            if (!gone && at->is_regular_file(gone) && isSafeName(name))
                files.append(ZnJsonObject{{"name", name}, {"size", static_cast<std::int64_t>(size)}});
        }
        return files;
    }

private:
    /// Where the file system has no links: an empty file takes the name first, so that nothing is ever replaced.
    static std::error_code moveTo(const ZnString& path, const ZnHttpMultipartPart& part) {
        std::error_code error;
        if (!ZnFile(path).createNew()) {
            const bool isTaken = fs::exists(fs::symlink_status(path.str(), error));
            return std::make_error_code(isTaken ? std::errc::file_exists : std::errc::io_error);
        }
        fs::rename(part.tempFilePath.str(), path.str(), error);
        if (error)
            znFilePlatform()->remove(path);
        return error;
    }

    const ZnString directory_; // absolute, with a "/" at its end
    const ZnString incoming_;
};

// --- the handlers

/// Takes what has been read. A part that stays untouched costs nothing: the framework removes its file.
void handleUpload(const Store& store, ZnHttpContext& context) {
    ZnJsonArray stored;
    ZnJsonArray refused;
    int status = 201;
    const auto refuse = [&](const ZnHttpMultipartPart& part, int reasonStatus, const char* reason) {
        refused.append(ZnJsonObject{{"field", tellable(part.name)}, {"reason", reason}});
        status = reasonStatus;
    };
    for (const ZnHttpMultipartPart& part : context.request().multipartParts) {
        if (!part.isTempFile)
            continue; // a plain field, or a file input that was left empty
        if (!isSafeName(part.fileName)) {
            refuse(part, 400, "no usable file name");
            continue;
        }
        const std::error_code error = store.keep(part);
        if (error == std::errc::file_exists)
            refuse(part, 409, "the name is taken");
        else if (error)
            refuse(part, 500, "the file could not be stored");
        else
            stored.append(ZnJsonObject{{"name", part.fileName},
                                       {"size", static_cast<std::int64_t>(part.size)},
                                       {"path", "/files/" + percentEncoded(part.fileName)}});
    }
    if (stored.isEmpty() && refused.isEmpty())
        return context.text("No file in the form", 400);
    context.json(ZnJsonObject{{"stored", std::move(stored)}, {"refused", std::move(refused)}}, status);
}

/// Only names the file: the session reads it piece by piece, as fast as the peer takes it.
void handleDownload(const Store& store, ZnHttpContext& context) {
    const ZnString& name = context.pathParam("name");
    ZnFileReader file;
    if (!isSafeName(name) || !file.open(store.pathOf(name)))
        return context.text("Not Found", 404);
    context.send({}, "application/octet-stream");
    context.setHeader("content-disposition", attachmentOf(name)); // never shown as a page of this site
    context.setHeader("x-content-type-options", "nosniff");
    ZnHttpResponse& response = context.response();
    response.useFile = true;
    response.filePath = store.pathOf(name);
    response.fileLength = file.sizeBytes();
}

void handleDelete(const Store& store, ZnHttpContext& context) {
    const ZnString& name = context.pathParam("name");
    if (!isSafeName(name) || !znFilePlatform()->remove(store.pathOf(name)))
        return context.text("Not Found", 404);
    context.json(ZnJsonObject{{"removed", name}});
}

/// Whether the page that sent the request, as far as its browser tells, came from the address that it is sent to.
bool isOfThisSite(const ZnHttpRequest& request) {
    const ZnString site = request.headers.value("sec-fetch-site", "none");
    const auto origin = request.headers.find("origin");
    const ZnString own = (request.isTls ? "https://" : "http://") + request.headers.value("host");
    return (site == "same-origin" || site == "none") &&
           (origin == request.headers.end() || origin->second.toLower() == own.toLower());
}

/// Web pages of other sites may make a browser send forms here. And a form goes to one place only: sent elsewhere, its
/// files would fill the disk until the whole request is there.
bool refuseForeign(const ZnHttpRequest& request, ZnHttpResponse& response) {
    const bool isReading = request.method == "GET" || request.method == "HEAD";
    const bool isForm = request.headers.value("content-type").toLower().startsWith("multipart/");
    if (!isReading && !isOfThisSite(request))
        response = ZnHttpResponse::plain(403, "Forbidden", request.keepAlive);
    else if (isForm && request.method != "POST")
        response = ZnHttpResponse::plain(400, "No form is expected here", request.keepAlive);
    else
        return false;
    return true;
}

void configure(ZnHttpApp& app, const Store& store) {
    ZnHttpLimits limits = app.limits();
    limits.strictGrammar = true;
    limits.refuseBeforeBody = true;
    limits.streamMultipart = true; // a file part goes to the disk as it comes
    limits.multipartTempDir = store.incoming();
    limits.maxStreamedBodyBytes = 4ULL << 30;
    limits.maxBodyBytes = 64 * 1024;           // of other bodies, which would stay in memory
    limits.maxMultipartFieldBytes = 16 * 1024; // and so do the fields of a form: up to 4 MiB with this
    limits.maxMultipartHeaderBytes = 4 * 1024;
    limits.maxConnections = 256;
    app.setLimits(limits);
    ZnHttpTimeouts timeouts = app.timeouts();
    timeouts.bodyTimeoutMs = kUploadMs; // from the first byte of a request to its last
    app.setTimeouts(timeouts);

    app.addRequestFilter(refuseForeign);
    app.get("/", [](ZnHttpContext& context) { context.sendString(kForm, "text/html; charset=utf-8"); });
    app.get("/files", [&store](ZnHttpContext& context) { context.json(store.list()); });
    app.post("/files", [&store](ZnHttpContext& context) { handleUpload(store, context); });
    app.get("/files/:name", [&store](ZnHttpContext& context) { handleDownload(store, context); });
    app.del("/files/:name", [&store](ZnHttpContext& context) { handleDelete(store, context); });
}

} // namespace

int main(int argc, char** argv) {
    ZnCoreApplication application(argc, argv);
    const ZnString address = application.getArgument("bind", "127.0.0.1");
    const int port = application.getArgument("port", "9030").toInt();
    const Store store(application.getArgument("directory", "file-drop"));
    ZnThreadPool pool; // its end waits for the handlers that still run: before the end of the store, which they use
    pool.setMaxThreadCount(std::max(1, application.getArgument("threads", "4").toInt()));
    ZnHttpApp app;
    configure(app, store);
    app.setThreadPool(&pool);
    app.setDispatchMode(ZnHttpServer::DispatchMode::ThreadPool); // handlers wait for the disk, the loop does not

    const ZnList<ZnSslLocalCredential> credentials = ZnSslServer::makeLocalCredentials_(
        application.getArgument("tls_cert_path", ""), application.getArgument("tls_key_path", ""));
    const bool usesTls = !credentials.isEmpty();
    ZnTcpServer& listener = usesTls ? app.sslServer() : app.tcpServer();
    if ((usesTls && !app.sslServer().reloadLocalCredentials(credentials)) || port < 0 || port > 65535 ||
        !store.prepare() || !listener.listen(address, static_cast<unsigned short>(port))) {
        std::cerr << "file-drop: unable to listen on " << address << ":" << port << " or to write to "
                  << store.incoming() << std::endl;
        return 2;
    }
    store.removeLeftovers(); // not before it listens: a second start by mistake must not disturb the first
    std::cout << "file-drop: listening on " << (usesTls ? "https://" : "http://") << address << " port "
              << listener.localPort() << std::endl;
    return application.exec(); // SIGINT and SIGTERM end it
}
