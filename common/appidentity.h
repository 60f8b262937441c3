#pragma once

#include <QString>

class QCoreApplication;

// Who the program is to the settings store, the cloud and the user.
namespace AppIdentity {

inline constexpr char kOrganisationName[] = "MEROVAN";
inline constexpr char kOrganisationDomain[] = "merovan.com";
inline constexpr char kApplicationName[] = "Tessaline";
inline constexpr char kVersion[] = "6.6.7";

// Sets organisation, domain and application name; must run before any
// settings object is opened.
void apply(QCoreApplication &app);

} // namespace AppIdentity
