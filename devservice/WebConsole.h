#pragma once

#include <QString>

class QHttpServer;
class QHttpServerResponse;

// The dev service's web console: one page, its style, script and icon, compiled in as Qt
// resources and served at "/" and under "/console/". The page works only through the agent
// API, from the browser, like any other agent.
class WebConsole {
public:
    static void addRoutes(QHttpServer& http);

private:
    // The asset `name` ("index.html", "console.js", ...) with its headers; 404 for any other.
    static QHttpServerResponse asset(const QString& name);
};
