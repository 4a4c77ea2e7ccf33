#include "core/io/http/ZnHttpMultipart.h"

#include "core/fs/TemporaryDirectory.h"
#include "core/io/http/ZnHttpParser_.h"

#include <csignal>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string kDisposition = "content-disposition: form-data";
const std::string kEnd = "--b--";
constexpr const char* kFormType = "multipart/form-data; boundary=b";

/// A part whose headers are the disposition with `params` and the lines `more`.
std::string part(const std::string& params, const std::string& data, const std::string& more = "") {
    return "--b\r\n" + kDisposition + params + "\r\n" + more + "\r\n" + data + "\r\n";
}

std::string request(const std::string& body, bool chunked = false, const char* type = kFormType) {
    std::string wire = std::string("POST / HTTP/1.1\r\ncontent-type: ") + type + "\r\n";
    if (!chunked)
        return wire + "content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    wire += "transfer-encoding: chunked\r\n\r\n";
    for (std::size_t at = 0; at < body.size(); at += 10) {
        const std::string chunk = body.substr(at, 10);
        wire += (chunk.size() == 10 ? "a" : std::to_string(chunk.size())) + "\r\n" + chunk + "\r\n";
    }
    return wire + "0\r\n\r\n";
}

std::string describe(const ZnHttpRequest& request) {
    std::string text;
    for (const ZnHttpMultipartPart& part : request.multipartParts) {
        text += "[" + part.name.str() + "|" + part.fileName.str() + "|" + part.contentType.str() + "|" +
                std::to_string(part.size) + (part.isFile ? "F" : "") + "]";
        text += part.isTempFile ? contentOf(part.tempFilePath) : std::string(part.data.view());
    }
    for (const auto& [name, value] : request.formFields)
        text += "{" + name.str() + "=" + value.str() + "}";
    return text + (request.multipartParsed ? "." : "unread");
}

/// Files into a directory of its own, and limits that a table row can reach.
class ZnHttpMultipart : public testing::Test {
protected:
    void feed(std::string_view wire) { (parser_ ? *parser_ : parser_.emplace(limits_)).feed(wire, requests_); }

    /// What the session would make of it: the parts, or the error answer.
    std::string outcomeOf(const std::vector<std::string_view>& pieces) {
        parser_.reset();
        requests_.clear();
        for (const std::string_view piece : pieces)
            feed(piece);
        if (parser_->state() == ZnHttpParser_::State::Failed)
            return std::to_string(parser_->errorStatus()) + " " + parser_->errorText().str();
        if (requests_.isEmpty())
            return "unfinished";
        ZnString errorText;
        return zn::http::parseMultipart(*requests_[0], limits_, &errorText) ? describe(*requests_[0])
                                                                            : "400 " + errorText.str();
    }

    std::size_t fileCount() const {
        std::error_code none;
        const fs::directory_iterator files(limits_.multipartTempDir.str(), none);
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    const TemporaryDirectory directory_;
    ZnHttpLimits limits_{.maxMultipartParts = 3,
                         .maxMultipartHeaderBytes = 96,
                         .maxMultipartFieldBytes = 20,
                         .multipartTempDir = directory_.path("up/loads")};
    std::optional<ZnHttpParser_> parser_;
    ZnList<ZnHttpParser_::RequestRef> requests_;
};

TEST_F(ZnHttpMultipart, BothReadersGiveTheSamePartsWhereverTheInputIsCut) {
    const std::string longest = "x: " + std::string(96 - kDisposition.size() - 5, 'y');
    const std::string file = part("; filename=f", "1");
    const std::string x20(20, 'x');
    const std::string incomplete = "400 Incomplete multipart body";
    const struct {
        const char* name;
        std::string body, buffered, streamed = {};
    } rows[] = {
        // streamed: if it differs
        {"fields", part("; name=\"a\"", "1") + part(";NAME = a ", "") + part("", "z") + kEnd,
         "[a|||1]1[a|||0][|||1]z{a=}."},
        {"file", part("; name=a; filename=\"../f x\"", "\r\n--\n", "Content-TYPE:  t\r\n") + kEnd,
         "[a|../f x|t|5F]\r\n--\n."},
        {"no file", part("; name=a; filename=\"\"", "1") + kEnd, "[a|||1]1{a=1}."},
        {"nearly a delimiter", part("; filename=f", "\r\n--c\r\r\n-\r\n--") + kEnd, "[|f||13F]\r\n--c\r\r\n-\r\n--."},
        {"a line end in front and text behind", "\r\n" + file + kEnd + "\r\n--b\r\n", "[|f||1F]1."},
        {"only the end", kEnd, "."},
        {"two line ends in front", "\r\n\r\n" + kEnd, "400 Malformed multipart boundary"},
        {"delimiter with a tail", file + "--bbb", "400 Malformed multipart boundary delimiter"},
        {"too short", "--", "400 Malformed multipart body", incomplete},
        {"no end of the headers", "--b\r\nx:y\r\n", "400 Malformed multipart headers", incomplete},
        {"ends in a part", file + part("", "x"), "400 Multipart closing boundary not found", incomplete},
        {"header without a name", "--b\r\n : x\r\n\r\n\r\n" + kEnd, "400 Malformed multipart part header"},
        {"no disposition", "--b\r\nx: y\r\n\r\n\r\n" + kEnd, "400 Missing Content-Disposition in multipart part"},
        {"other", "--b\r\ncontent-disposition: x\r\n\r\n\r\n" + kEnd, "400 Unsupported multipart Content-Disposition"},
        {"most parts", file + file + file + kEnd, "[|f||1F]1[|f||1F]1[|f||1F]1."},
        {"too many parts", file + file + file + file + kEnd, "400 Too many multipart parts"},
        {"longest headers", part("", "", longest + "\r\n") + kEnd, "[|||0]."},
        {"too long headers", part("", "", longest + "y\r\n") + kEnd, "400 Multipart part headers too large"},
        {"longest field", part("", x20) + kEnd, "[|||20]" + x20 + "."},
        {"too long field", part("", x20 + "x") + kEnd, "[|||21]" + x20 + "x.", "400 Multipart form field too large"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        limits_.streamMultipart = false;
        EXPECT_EQ(outcomeOf({request(row.body)}), row.buffered);
        limits_.streamMultipart = true;
        for (const std::string& wire : {request(row.body), request(row.body, true)}) {
            for (std::size_t cut = 1; cut <= wire.size(); ++cut)
                ASSERT_EQ(outcomeOf({std::string_view(wire).substr(0, cut), std::string_view(wire).substr(cut)}),
                          row.streamed.empty() ? row.buffered : row.streamed)
                    << "cut at " << cut;
        }
    }
    requests_.clear();
    EXPECT_EQ(fileCount(), 0U);
}

TEST_F(ZnHttpMultipart, ContentTypesThatAreRead) {
    const std::pair<const char*, const char*> rows[] = {
        {"multipart/form-data; boundary=\"\"", "400 Missing multipart boundary"},
        {"multipart/form-data-x; boundary=b", "400 Missing multipart boundary"},
        {"MULTIPART/FORM-DATA; charset=x; Boundary=\"b\"", "."},
        {"multipart/mixed; boundary=b", "unread"},
    };
    const std::string longest(70, 'b');
    const std::string type = "multipart/form-data; boundary=" + longest;
    for (const bool streams : {false, true}) {
        limits_.streamMultipart = streams;
        for (const auto& [rowType, expected] : rows)
            EXPECT_EQ(outcomeOf({request(kEnd, false, rowType)}), expected) << rowType;
        EXPECT_EQ(outcomeOf({request("--" + longest + "--", false, type.c_str())}), ".");
        EXPECT_EQ(outcomeOf({request("--" + longest + "b--", false, (type + "b").c_str())}),
                  "400 Multipart boundary too long")
            << "with 30 KB a body in small chunks would stop the loop";
    }
    EXPECT_EQ(outcomeOf({request("")}), "400 Malformed multipart body") << "no body, nothing to stream";
    limits_.maxBodyBytes = 10;
    EXPECT_EQ(outcomeOf({request(kEnd + "12345", true)}), ".") << "the bytes behind the end count";
    EXPECT_EQ(outcomeOf({request(kEnd + "123456", true)}), "413 Body too large");
    limits_.maxStreamedBodyBytes = 11;
    EXPECT_EQ(outcomeOf({request(kEnd + "123456", true)}), ".");
    EXPECT_EQ(outcomeOf({request(kEnd + "1234567")}), "413 Body too large");
    EXPECT_EQ(outcomeOf({request(kEnd + "123456", false, "text/plain")}), "413 Body too large") << "not streamed";
}

TEST_F(ZnHttpMultipart, FilesArePrivateAndGoWithWhoeverOwnsThem) {
    limits_.streamMultipart = true;
    const std::string wire = request(part("; filename=f", "first") + part("; filename=g", "second") + kEnd);
    feed(wire);
    const std::string first = requests_[0]->multipartParts[0].tempFilePath.str();
    const std::string prefix = first.substr(0, first.rfind('_') + 1);
    const auto numbered = [&](int number) { return prefix + std::to_string(number) + ".part"; };
    EXPECT_EQ(fs::status(first).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(first, numbered(0));
    EXPECT_TRUE(first.starts_with((limits_.multipartTempDir + "/multipart_").str()));

    const ZnString precious = directory_.file("precious", "kept");
    fs::create_symlink(precious.str(), numbered(2));
    fs::create_symlink(directory_.path("nowhere").str(), numbered(3));
    feed(wire); // while the first request waits
    EXPECT_EQ(requests_[1]->multipartParts[0].tempFilePath, numbered(4));
    EXPECT_EQ(describe(*requests_[1]), "[|f||5F]first[|g||6F]second.");
    EXPECT_EQ(contentOf(precious), "kept");
    EXPECT_FALSE(fs::exists(directory_.path("nowhere").str()));

    parser_.reset();
    EXPECT_TRUE(fs::exists(first)) << "a complete request outlives its parser";
    requests_.clear();
    EXPECT_FALSE(fs::exists(first)) << "nobody took the request";
    feed(wire);
    const std::string next = requests_[0]->multipartParts[0].tempFilePath.str();
    EXPECT_NE(next, first) << "a handler may be at work with that name";
    requests_[0]->tempFiles->removeAll();
    EXPECT_FALSE(fs::exists(next)) << "the answer has left";
    std::ofstream(next) << "of someone else";
    requests_.clear();
    EXPECT_TRUE(fs::exists(next)) << "removed once, then forgotten";
}

TEST_F(ZnHttpMultipart, ADiskThatRefusesEndsTheUpload) {
    limits_.streamMultipart = true;
    const std::string wire = request(part("; filename=f", std::string(6000, 'x')) + kEnd);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit previous{};
    ::getrlimit(RLIMIT_FSIZE, &previous);
    const rlimit small{4096, previous.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
    std::vector<std::string_view> pieces; // so small that only the last flush comes to the disk
    for (std::size_t at = 0; at < wire.size(); at += 100)
        pieces.push_back(std::string_view(wire).substr(at, 100));
    EXPECT_EQ(outcomeOf(pieces), "400 Unable to write multipart file data");
    ::setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previousHandler);
    EXPECT_EQ(fileCount(), 0U);
    limits_.multipartTempDir = directory_.file("file", "") + "/below";
    EXPECT_EQ(outcomeOf({wire}), "500 Unable to create multipart temp directory");
}

} // namespace
