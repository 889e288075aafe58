// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "course.h"
#include "script.h"
#include "sides.h"
#include "trace.h"

#include <vector>

//! Connections that are played at the same time, on one plugin.
struct EpisodePlan
{
    int tlsVersion = 0; // OpenSSL's number; 0 for plain TCP
    bool ownThreads = true; // each connection has a worker thread, else four threads share them
    bool wildcard = false; // listens on all addresses
    int timeoutSeconds = 60;
    // Stop and Destroy end all connections; otherwise each script has its own ending.
    Ending ending = Ending::Close;
    bool slowLog = false;
    bool prompt = false; // the library's "prompt", which the plain plugin does not know
    QList<Script> scripts;

    // The same seed and number give the same plan. The scripts are spaced if the number is even,
    // and hasty if it is odd.
    static EpisodePlan random(quint32 seed, int number, int connections);

    int threads() const;
    CourseNames names(int connection) const;
    QString toString() const;
};

struct EpisodeResult
{
    std::vector<Trace> traces; // by script
    QStringList pluginLines; // lines that belong to no connection, in order
    QString status; // when all were connected
};

//! Plays an episode on one side. Thread: the main one, which is the plugin's.
EpisodeResult playEpisode(Side &side, const EpisodePlan &plan);
