#pragma once

#include "core/io/http/ZnHttpLimits.h"
#include "core/io/http/ZnHttpMultipartPart.h"
#include "core/io/http/ZnHttpRequest.h"

#include <string_view>

/// The reader of complete "multipart/form-data" bodies, and the words that the streaming reader
/// (ZnHttpMultipartStream_) shares with it.
///
///   [ CRLF ]  *( "--" boundary CRLF  headers CRLF CRLF  bytes CRLF )  "--" boundary "--"  anything
namespace zn::http {

/// Takes the body of a multipart request apart into multipartParts and formFields; true, and nothing done, for any
/// other request and for one that the streaming reader has read. Failure: false, with a text for the peer; the
/// request is then to be refused. Makes no files; the body stays.
bool parseMultipart(ZnHttpRequest& request, const ZnHttpLimits& limits, ZnString* errorText);

/// Whether a content type begins with "multipart/form-data", in any case.
bool isMultipartForm(std::string_view contentType) noexcept;

/// The boundary of a content type. False, with a text for the peer, when the type is another one than
/// "multipart/form-data", or it has none, or one of more than 70 characters: more are not allowed, and the streaming
/// reader keeps back and searches again as many bytes at every piece that comes.
bool parseBoundary(std::string_view contentType, ZnString* boundary, ZnString* errorText);

/// Splits "main; key=value; ...". Main and keys are made lower case, quotes around a value are dropped, a repeated key
/// keeps its last value. A ";" separates also between quotes, and a piece without a key is skipped.
void parseHeaderValue(std::string_view value, ZnString* main, ZnMap<ZnString, ZnString>* params);

/// The header lines of a part, without the empty line at their end.
bool parsePartHeaders(std::string_view block, const ZnHttpLimits& limits, ZnMap<ZnString, ZnString>* headers,
                      ZnString* errorText);

/// Fills in what the headers of `part` tell about it.
bool describePart(ZnHttpMultipartPart& part, ZnString* errorText);

} // namespace zn::http
