#pragma once

#include <QString>

// How this computer names itself to the Live Console service. The "cid" is
// made once per installation and account and kept in the settings store
// (`CloudConsoleCid`, with the account it belongs to in
// `CloudConsoleCidAccount`), so it survives restarts and signing out and in
// again; another account gets a new one. The "session_id" is new at every
// start of the program.
namespace ConsoleIdentity {

// The cid of this installation for the account with this user id.
QString cidFor(qint32 userId);
// A fresh random identifier (a UUID without braces).
QString newIdentifier();

} // namespace ConsoleIdentity
