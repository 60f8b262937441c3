#include "cloud/guestsharetable.h"

Result GuestShareTable::check(const Request &request)
{
    if (!GuestShare::validForSeconds().contains(request.ttlSeconds))
        return Result::failure(tr("A share lasts 1, 4, 12 or 24 hours."));
    const bool browser = GuestShare::isLevel(request.web) && request.web != QLatin1String("none");
    if (!browser && !request.relay)
        return Result::failure(tr("Allow at least one way in: the browser, Tessaline, or both."));
    const qsizetype length = request.passcode.toUcs4().size();
    if (length > 0 && (length < 4 || length > 16))
        return Result::failure(tr("A passcode is 4–16 characters."));
    return Result::success();
}

GuestShareTable::GuestShareTable(QString sessionId) : m_sessionId(std::move(sessionId)) {}

const GuestShare *GuestShareTable::find(const QString &shareId) const
{
    for (const GuestShare &share : m_shares) {
        if (share.shareId == shareId)
            return &share;
    }
    return nullptr;
}

const GuestShare &GuestShareTable::add(GuestShare share, qint64 nowMs)
{
    if (share.createdAt > 0)
        m_offsetMs = share.createdAt - nowMs;
    share.shiftTimes(m_offsetMs);
    m_heldSince.insert(share.shareId, nowMs);
    for (GuestShare &held : m_shares) {
        if (held.shareId == share.shareId)
            return held = std::move(share);
    }
    m_shares.append(std::move(share));
    return m_shares.constLast();
}

std::optional<GuestShare> GuestShareTable::take(const QString &shareId)
{
    for (qsizetype i = 0; i < m_shares.size(); ++i) {
        if (m_shares.at(i).shareId == shareId) {
            m_heldSince.remove(shareId);
            return m_shares.takeAt(i);
        }
    }
    return std::nullopt;
}

QList<GuestShare> GuestShareTable::takeIf(const std::function<bool(const GuestShare &)> &ends)
{
    QList<GuestShare> taken;
    for (qsizetype i = 0; i < m_shares.size();) {
        if (ends(m_shares.at(i))) {
            m_heldSince.remove(m_shares.at(i).shareId);
            taken.append(m_shares.takeAt(i));
        } else {
            ++i;
        }
    }
    return taken;
}

QList<GuestShare> GuestShareTable::takeExpired(qint64 nowMs)
{
    return takeIf([nowMs](const GuestShare &share) { return share.expiresAt > 0 && share.expiresAt <= nowMs; });
}

void GuestShareTable::clear()
{
    m_shares.clear();
    m_heldSince.clear();
}

bool GuestShareTable::clearGuest(const QString &shareId)
{
    for (GuestShare &share : m_shares) {
        if (share.shareId == shareId && share.guest) {
            share.guest.reset();
            return true;
        }
    }
    return false;
}

GuestShareTable::ListingOutcome GuestShareTable::applyListing(const QList<GuestShare> &listed, qint64 askedAtMs)
{
    QHash<QString, const GuestShare *> byId;
    for (const GuestShare &share : listed)
        byId.insert(share.shareId, &share);

    ListingOutcome outcome;
    for (qsizetype i = 0; i < m_shares.size();) {
        GuestShare &held = m_shares[i];
        const GuestShare *seen = byId.value(held.shareId);
        QString endReason;
        if (!seen) {
            // Created after the service answered: not missing, just new.
            if (m_heldSince.value(held.shareId) > askedAtMs) {
                ++i;
                continue;
            }
            endReason = GuestShare::refusalText({});
        } else if (seen->ended) {
            endReason = GuestShare::endedText(seen->endReason);
        }
        if (!endReason.isEmpty()) {
            m_heldSince.remove(held.shareId);
            outcome.ended.append({m_shares.takeAt(i), endReason});
            continue;
        }
        // Who is on it changes; what it grants stays as it was created.
        std::optional<GuestShare::Guest> guest = seen->guest;
        if (guest && guest->since)
            guest->since -= m_offsetMs;
        if (guest != held.guest || seen->webGuests != held.webGuests) {
            held.guest = guest;
            held.webGuests = seen->webGuests;
            outcome.changed.append(held);
        }
        ++i;
    }

    m_listing = listed.mid(0, kMaxListing);
    for (GuestShare &share : m_listing)
        share.shiftTimes(m_offsetMs);
    return outcome;
}

ConsoleCommandTable::ShareAccess GuestShareTable::access(const QString &shareId, qint64 nowMs) const
{
    ConsoleCommandTable::ShareAccess access;
    if (const GuestShare *share = find(shareId)) {
        if (share->expiresAt > 0 && share->expiresAt <= nowMs)
            return access;  // past its time: nobody's rights outlast it
        access.held = true;
        access.level = share->web;
        access.portKey = share->portKey;
        access.relay = share->relay;
        return access;
    }
    for (const GuestShare &share : m_listing) {
        if (share.shareId == shareId && !share.sessionId.isEmpty() && share.sessionId != m_sessionId) {
            access.errorCode = QString::fromLatin1(ConsoleError::kSessionMismatch);
            access.message = QStringLiteral("the share belongs to an earlier run of the program");
            break;
        }
    }
    return access;
}
