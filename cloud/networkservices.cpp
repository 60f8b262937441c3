#include "cloud/networkservices.h"

#include "common/logging.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSettings>

namespace {

const QString kPrefix = QStringLiteral("/api/v3");

// The port tessaline-cloud listens on when started with its defaults.
constexpr int kLocalServicePort = 8437;

QString part(const QString &argument)
{
    return QStringLiteral("/") + QString::fromLatin1(QUrl::toPercentEncoding(argument));
}

} // namespace

NetworkServices::NetworkServices(QObject *parent) : QObject(parent), m_manager(new QNetworkAccessManager(this))
{
    m_manager->setTransferTimeout(kTransferTimeoutMs);
    connect(m_manager, &QNetworkAccessManager::finished, this, &NetworkServices::onReplyFinished);
}

NetworkServices *NetworkServices::instance()
{
    static NetworkServices *shared = new NetworkServices(QCoreApplication::instance());
    return shared;
}

void NetworkServices::setTransferTimeout(int ms)
{
    m_manager->setTransferTimeout(ms);
}

QString NetworkServices::defaultHostAddress()
{
    return QStringLiteral("http://127.0.0.1:%1").arg(kLocalServicePort);
}

QString NetworkServices::baseUrl()
{
    const QString fromEnvironment = qEnvironmentVariable("TSL_HOST").trimmed();
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    return QSettings().value(QStringLiteral("HostAddress"), defaultHostAddress()).toString();
}

QByteArray NetworkServices::acceptLanguage()
{
    const int language = QSettings().value(QStringLiteral("ValueL"), 0).toInt();
    const QByteArray chinese = "zh-CN,zh;q=0.9,en;q=0.8";
    if (language == 1)
        return chinese;
    if (language == 0)
        return QLocale::system().name() == QLatin1String("zh_CN") ? chinese : QByteArray("en");
    return "en";
}

QNetworkRequest NetworkServices::buildRequest(const QString &path, const QUrlQuery &query, const QString &tag,
                                              const QString &accessToken, const QString &guestToken) const
{
    QUrl url(baseUrl() + path);
    if (!query.isEmpty())
        url.setQuery(query);
    QNetworkRequest request(url);
    request.setAttribute(kTagAttribute, tag);
    request.setRawHeader("Accept-Language", acceptLanguage());
    if (!accessToken.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + accessToken.toUtf8());
    if (!guestToken.isEmpty())
        request.setRawHeader("X-Relay-Guest-Token", guestToken.toUtf8());
    return request;
}

void NetworkServices::get(const QString &path, const QUrlQuery &query, const QString &tag, const QString &accessToken)
{
    const QNetworkRequest request = buildRequest(path, query, tag, accessToken);
    qCDebug(lcCloud).noquote() << "[NetworkServices] GET" << request.url().toString();
    m_manager->get(request);
}

void NetworkServices::post(const QString &path, const QJsonObject &body, const QString &tag,
                           const QString &accessToken, int timeoutMs)
{
    QNetworkRequest request = buildRequest(path, {}, tag, accessToken);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    if (timeoutMs > 0)
        request.setTransferTimeout(timeoutMs);
    qCDebug(lcCloud).noquote() << "[NetworkServices] POST" << request.url().toString();
    m_manager->post(request, QJsonDocument(body).toJson(QJsonDocument::Indented));
}

void NetworkServices::put(const QString &path, const QJsonObject &body, const QString &tag, const QString &accessToken)
{
    QNetworkRequest request = buildRequest(path, {}, tag, accessToken);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    qCDebug(lcCloud).noquote() << "[NetworkServices] PUT" << request.url().toString();
    m_manager->put(request, QJsonDocument(body).toJson(QJsonDocument::Indented));
}

void NetworkServices::deleteResource(const QString &path, const QString &tag, const QString &accessToken,
                                     const QString &guestToken)
{
    const QNetworkRequest request = buildRequest(path, {}, tag, guestToken.isEmpty() ? accessToken : QString(), guestToken);
    qCDebug(lcCloud).noquote() << (guestToken.isEmpty() ? "[NetworkServices] DELETE" : "[NetworkServices] DELETE (guest)")
                               << request.url().toString();
    m_manager->deleteResource(request);
}

// --- endpoints ----------------------------------------------------------------

void NetworkServices::fetchCloudQuota(const QString &accessToken)
{
    get(kPrefix + QStringLiteral("/cloud/quota"), {}, QStringLiteral("cloud"), accessToken);
}

void NetworkServices::fetchRelayTargets(const QString &accessToken, const QString &cid)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("cid"), cid);
    get(kPrefix + QStringLiteral("/relay/targets"), query, QStringLiteral("relay"), accessToken);
}

void NetworkServices::peekInvite(const QString &accessToken, const QString &code)
{
    get(kPrefix + QStringLiteral("/relay/join") + part(code), {}, QStringLiteral("relaypeek:") + code, accessToken);
}

void NetworkServices::fetchShares(const QString &accessToken, const QString &cid)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("cid"), cid);
    get(kPrefix + QStringLiteral("/relay/shares"), query, QStringLiteral("share"), accessToken);
}

void NetworkServices::fetchAllShares(const QString &accessToken)
{
    get(kPrefix + QStringLiteral("/relay/shares"), {}, QStringLiteral("shareall"), accessToken);
}

void NetworkServices::pollConsoleCommands(const QString &accessToken, const QString &cid)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("cid"), cid);
    query.addQueryItem(QStringLiteral("limit"), QStringLiteral("16"));
    get(kPrefix + QStringLiteral("/console/commands/poll"), query, QStringLiteral("console"), accessToken);
}

void NetworkServices::fetchAccountProfile(const QString &accessToken)
{
    get(kPrefix + QStringLiteral("/account/me"), {}, QStringLiteral("account"), accessToken);
}

void NetworkServices::fetchAccountDevices(const QString &accessToken)
{
    get(kPrefix + QStringLiteral("/account/devices"), {}, QStringLiteral("account"), accessToken);
}

void NetworkServices::listSyncItems(const QString &accessToken, const QString &ns)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("namespace"), ns);
    get(kPrefix + QStringLiteral("/sync/items"), query, QStringLiteral("sync"), accessToken);
}

void NetworkServices::writeSyncItem(const QString &accessToken, const QString &ns, const QString &key,
                                    qint64 baseRevision, const QJsonObject &payload)
{
    put(kPrefix + QStringLiteral("/sync/items") + part(ns) + part(key),
        {{QStringLiteral("base_revision"), baseRevision}, {QStringLiteral("payload"), payload}},
        QStringLiteral("sync"), accessToken);
}

void NetworkServices::endRelaySession(const QString &accessToken, const QString &session)
{
    deleteResource(kPrefix + QStringLiteral("/relay/sessions") + part(session), QStringLiteral("relay"), accessToken);
}

void NetworkServices::endRelaySessionAsGuest(const QString &guestToken, const QString &session)
{
    deleteResource(kPrefix + QStringLiteral("/relay/sessions") + part(session), QStringLiteral("relay"), {}, guestToken);
}

void NetworkServices::revokeShare(const QString &accessToken, const QString &share)
{
    deleteResource(kPrefix + QStringLiteral("/relay/shares") + part(share), QStringLiteral("share"), accessToken);
}

void NetworkServices::removeAccountDevice(const QString &accessToken, const QString &device)
{
    deleteResource(kPrefix + QStringLiteral("/account/devices") + part(device), QStringLiteral("account"), accessToken);
}

void NetworkServices::sendConsoleHeartbeat(const QString &accessToken, const QJsonObject &body)
{
    post(kPrefix + QStringLiteral("/console/heartbeat"), body, QStringLiteral("console"), accessToken);
}

void NetworkServices::sendPortSnapshot(const QString &accessToken, const QJsonObject &body)
{
    post(kPrefix + QStringLiteral("/console/ports/snapshot"), body, QStringLiteral("console"), accessToken);
}

void NetworkServices::acknowledgeCommand(const QString &accessToken, const QString &commandId, const QJsonObject &body)
{
    post(kPrefix + QStringLiteral("/console/commands") + part(commandId) + QStringLiteral("/ack"), body,
         QStringLiteral("console"), accessToken);
}

void NetworkServices::reportCommandResult(const QString &accessToken, const QString &commandId, const QJsonObject &body)
{
    post(kPrefix + QStringLiteral("/console/commands") + part(commandId) + QStringLiteral("/result"), body,
         QStringLiteral("console"), accessToken);
}

void NetworkServices::sendConsoleEvents(const QString &accessToken, const QJsonObject &body)
{
    post(kPrefix + QStringLiteral("/console/events"), body, QStringLiteral("console"), accessToken);
}

void NetworkServices::openRelaySession(const QString &accessToken, const QString &cid, const QString &sessionId,
                                       const QString &portKey, const QString &tag)
{
    post(kPrefix + QStringLiteral("/relay/sessions"),
         {{QStringLiteral("cid"), cid}, {QStringLiteral("session_id"), sessionId}, {QStringLiteral("port_key"), portKey}},
         tag.isEmpty() ? QStringLiteral("relay") : tag, accessToken);
}

void NetworkServices::joinByInvite(const QString &accessToken, const QString &code, const QString &passcode,
                                   const QString &guestName, const QString &tag)
{
    QJsonObject body{{QStringLiteral("code"), code}};
    if (!passcode.isEmpty())
        body.insert(QStringLiteral("passcode"), passcode);
    if (!guestName.isEmpty())
        body.insert(QStringLiteral("guest_name"), guestName);
    post(kPrefix + QStringLiteral("/relay/join"), body, tag.isEmpty() ? QStringLiteral("relay") : tag, accessToken);
}

void NetworkServices::createShare(const QString &accessToken, const QJsonObject &body)
{
    post(kPrefix + QStringLiteral("/relay/shares"), body, QStringLiteral("share"), accessToken);
}

void NetworkServices::requestRegistrationCode(const QString &accessToken, const QString &email)
{
    post(kPrefix + QStringLiteral("/account/register/code"), {{QStringLiteral("email"), email}},
         QStringLiteral("account"), accessToken);
}

void NetworkServices::registerAccount(const QString &accessToken, const QString &email, const QString &username,
                                      const QString &password, const QString &code, const QString &deviceName,
                                      const QString &clientVersion)
{
    post(kPrefix + QStringLiteral("/account/register"),
         {{QStringLiteral("email"), email},
          {QStringLiteral("username"), username},
          {QStringLiteral("password"), password},
          {QStringLiteral("code"), code},
          {QStringLiteral("device_name"), deviceName},
          {QStringLiteral("client_version"), clientVersion}},
         QStringLiteral("account"), accessToken);
}

void NetworkServices::signIn(const QString &accessToken, const QString &email, const QString &password,
                             const QString &deviceName, const QString &clientVersion)
{
    post(kPrefix + QStringLiteral("/account/login"),
         {{QStringLiteral("email"), email},
          {QStringLiteral("password"), password},
          {QStringLiteral("device_name"), deviceName},
          {QStringLiteral("client_version"), clientVersion}},
         QStringLiteral("account"), accessToken);
}

void NetworkServices::refreshToken(const QString &accessToken, const QString &refreshToken)
{
    post(kPrefix + QStringLiteral("/account/token/refresh"), {{QStringLiteral("refresh_token"), refreshToken}},
         QStringLiteral("account"), accessToken);
}

void NetworkServices::signOut(const QString &accessToken, const QString &refreshToken)
{
    post(kPrefix + QStringLiteral("/account/logout"), {{QStringLiteral("refresh_token"), refreshToken}},
         QStringLiteral("account"), accessToken);
}

void NetworkServices::bindDevice(const QString &accessToken, const QString &deviceName, const QString &clientVersion)
{
    post(kPrefix + QStringLiteral("/account/devices/bind"),
         {{QStringLiteral("device_name"), deviceName}, {QStringLiteral("client_version"), clientVersion}},
         QStringLiteral("account"), accessToken);
}

void NetworkServices::postWithTimeout(const QString &path, const QJsonObject &body, const QString &tag,
                                      const QString &accessToken, int timeoutMs)
{
    post(path, body, tag, accessToken, timeoutMs);
}

// --- replies ----------------------------------------------------------------------

void NetworkServices::onReplyFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    const QString tag = reply->request().attribute(kTagAttribute).toString();
    const QByteArray body = reply->readAll();
    const QJsonDocument document = QJsonDocument::fromJson(body);
    const auto reportError = [&] {
        qCWarning(lcCloud).noquote() << "[NetworkServices]" << reply->url().toString() << reply->errorString()
                                     << QString::fromUtf8(body.left(200));
        emit networkError(tag, errorMessage(reply), errorDetail(reply));
    };
    if (document.isNull()) {
        reportError();
        return;
    }
    const QJsonObject object = document.object();
    const QJsonValue type = object.value(QLatin1String("type"));
    // The body's "type" goes first: a refusal with an envelope is an answer,
    // not a transport failure.
    if (type.isString()) {
        dispatch(type.toString().trimmed().toLower(), tag, object);
        return;
    }
    if (reply->error() != QNetworkReply::NoError) {
        reportError();
        return;
    }
    qCWarning(lcCloud).noquote() << "[NetworkServices] Unknown message type:" << type.toVariant().toString();
}

void NetworkServices::dispatch(const QString &type, const QString &tag, const QJsonObject &object)
{
    const QString peekPrefix = QStringLiteral("relaypeek:");
    const QString operationPrefix = QStringLiteral("relayop:");
    if (type == QLatin1String("account")) {
        emit accountResponse(object);
    } else if (type == QLatin1String("sync")) {
        emit syncResponse(object);
    } else if (type == QLatin1String("quota")) {
        emit cloudQuotaResponse(object);
    } else if (type == QLatin1String("relay")) {
        if (tag.startsWith(operationPrefix))
            emit relayOperationResponse(tag, object);
        else if (tag == QLatin1String("share"))
            emit relayShareResponse(object);
        else if (tag == QLatin1String("shareall"))
            emit relayShareOverviewResponse(object);
        else if (tag.startsWith(peekPrefix))
            emit relayPeekResponse(tag.mid(peekPrefix.size()), object);
        else
            emit relayResponse(object);
    } else if (type == QLatin1String("console")) {
        if (tag.startsWith(operationPrefix))
            emit relayOperationResponse(tag, object);
        else if (tag == QLatin1String("relay"))
            emit relayResponse(object);
        else if (tag.startsWith(peekPrefix))
            emit relayPeekResponse(tag.mid(peekPrefix.size()), object);
        else
            emit consoleResponse(object);
    } else {
        qCWarning(lcCloud).noquote() << "[NetworkServices] Unknown message type:" << type;
    }
}

QString NetworkServices::errorMessage(QNetworkReply *reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QNetworkReply::NetworkError error = reply->error();
    if (status == 404 || status == 405 || status == 501)
        return tr("The server does not offer this feature yet. The service may be under maintenance or being "
                  "upgraded; please try again later or check for a newer version.");
    if (status == 401 || status == 403)
        return tr("The server declined the request. Please sign in again and retry.");
    if (status >= 500)
        return tr("The server encountered an internal error. Please try again later.");
    if (status >= 400 && status <= 499)
        return tr("The server rejected the request (HTTP %1). Please try again later.").arg(status);
    if (status <= 0) {
        if (error == QNetworkReply::TimeoutError || error == QNetworkReply::OperationCanceledError)
            return tr("The server did not respond in time. Please check your network connection and try again.");
        if (error == QNetworkReply::NoError)
            return tr("The server returned an unexpected response. Please try again later.");
        if (error == QNetworkReply::SslHandshakeFailedError)
            return tr("A secure connection to the server could not be established. Please check your network "
                      "environment.");
        if (error >= 101 && error <= 199)
            return tr("The proxy server could not be reached. Please check your proxy settings.");
    }
    return tr("Could not connect to the server. Please check your network connection and try again.");
}

QString NetworkServices::errorDetail(QNetworkReply *reply)
{
    QString detail = QStringLiteral("URL: %1").arg(reply->url().toString());
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status > 0)
        detail += QStringLiteral("\nHTTP status: %1 %2")
                      .arg(status)
                      .arg(reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString());
    if (reply->error() != QNetworkReply::NoError)
        detail += QStringLiteral("\n") + reply->errorString();
    return detail;
}
