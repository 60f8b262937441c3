#include "webpage.h"

#include <QFile>
#include <QRegularExpression>

// The files live in this static library: its users would lose them
// without a reference that the linker keeps.
static void initWebResources()
{
    static const bool done = [] {
        Q_INIT_RESOURCE(web);
        return true;
    }();
    Q_UNUSED(done);
}

namespace WebPage {

std::optional<HttpResponse> serve(const QByteArray &method, const QString &path)
{
    if (method != "GET" && method != "HEAD")
        return std::nullopt;
    struct File
    {
        const char *path;
        const char *resource;
        const char *type;
    };
    static const File files[] = {
        {"/", ":/web/index.html", "text/html; charset=utf-8"},
        {"/console.js", ":/web/console.js", "text/javascript; charset=utf-8"},
        {"/pagekit.js", ":/web/pagekit.js", "text/javascript; charset=utf-8"},
        {"/console.css", ":/web/console.css", "text/css; charset=utf-8"},
        // Without an icon of its own, every visit costs the browser a 404.
        {"/favicon.svg", ":/web/favicon.svg", "image/svg+xml"},
        {"/join", ":/web/guest.html", "text/html; charset=utf-8"},
        {"/guest.js", ":/web/guest.js", "text/javascript; charset=utf-8"},
        {"/guest.css", ":/web/guest.css", "text/css; charset=utf-8"},
    };
    // Every invite link opens the guest's page; it reads its code itself.
    static const QRegularExpression joinPath(QStringLiteral("^/join/[A-Za-z0-9 -]{1,64}$"));
    if (path == QLatin1String("/join"))
        return std::nullopt;
    const QString wanted = joinPath.match(path).hasMatch() ? QStringLiteral("/join") : path;
    for (const File &file : files) {
        if (wanted != QLatin1String(file.path))
            continue;
        initWebResources();
        QFile resource(QString::fromLatin1(file.resource));
        if (!resource.open(QIODevice::ReadOnly))
            return std::nullopt;
        HttpResponse response;
        response.body = resource.readAll();  // the connection leaves it out for HEAD
        response.contentType = file.type;
        response.headers = {{"Content-Security-Policy", kPolicy},
                            {"X-Content-Type-Options", "nosniff"},
                            {"Referrer-Policy", "no-referrer"},
                            {"Cache-Control", "no-cache"}};
        return response;
    }
    return std::nullopt;
}

} // namespace WebPage
