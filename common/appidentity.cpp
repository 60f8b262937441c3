#include "common/appidentity.h"

#include <QCoreApplication>

namespace AppIdentity {

void apply(QCoreApplication &app)
{
    app.setOrganizationName(QString::fromLatin1(kOrganisationName));
    app.setOrganizationDomain(QString::fromLatin1(kOrganisationDomain));
    app.setApplicationName(QString::fromLatin1(kApplicationName));
    app.setApplicationVersion(QString::fromLatin1(kVersion));
}

} // namespace AppIdentity
