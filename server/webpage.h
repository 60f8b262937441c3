#pragma once

#include "httpconnection.h"

#include <QString>

#include <optional>

// The browser page's files, kept in the service's resources: "/" and the
// script and style it names. Every answer carries a strict
// Content-Security-Policy: scripts, styles and connections from this
// service only, nothing inline, no frames.
namespace WebPage {

// The answer for a GET or HEAD of one of the page's paths; nothing for
// any other request.
std::optional<HttpResponse> serve(const QByteArray &method, const QString &path);

inline constexpr const char *kPolicy = "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
                                       "img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

} // namespace WebPage
