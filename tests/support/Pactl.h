#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// `pactl` run with `environment` (which names the server); its standard output. Throws
// std::runtime_error with pactl's complaint when it fails.
QString pactl(const QProcessEnvironment& environment, const QStringList& arguments);
