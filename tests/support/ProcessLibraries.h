#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

// What another process has mapped of shared libraries, read from its /proc files.
namespace ProcessLibraries {

// Whether the process has mapped a shared library whose file name starts with `name` (a
// regular expression).
bool maps(qint64 processID, const QString& name);

// The shared objects the process has mapped, by file, with the kilobytes of the files' own
// pages resident in those of their mappings it cannot write (code and read-only data; not the
// private copies the loader made while relocating).
using ResidentCode = QMap<QString, qint64>;
ResidentCode residentCode(qint64 processID);

// Waits up to ten seconds for the libraries the process has mapped since `before` to hold
// next to none of their code resident, as after a module that brought them in has left
// while the C library keeps them loaded. False, with them listed in `report`, when they still
// hold more or there are none.
bool codeLoadedSinceIsReleased(qint64 processID, const ResidentCode& before, QString& report);

} // namespace ProcessLibraries
