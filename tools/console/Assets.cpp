#include "tools/console/Assets.h"

#include <QCryptographicHash>
#include <QFile>

namespace {

struct Asset
{
    const char *path;
    const char *file;
    const char *contentType;
};

const char html[] = "text/html; charset=utf-8";
const char css[] = "text/css; charset=utf-8";
const char script[] = "text/javascript; charset=utf-8";
const char json[] = "application/json";

const Asset assets[] = {
    {"/", ":/console/index.html", html},
    {"/style.css", ":/console/style.css", css},
    {"/console.js", ":/console/console.js", script},
    {"/actions.js", ":/console/actions.js", script},
    {"/box.js", ":/console/box.js", script},
    {"/dom.js", ":/console/dom.js", script},
    {"/live.js", ":/console/live.js", script},
    {"/outputs.js", ":/console/outputs.js", script},
    {"/radios.js", ":/console/radios.js", script},
    {"/texts.js", ":/console/texts.js", script},
    {"/top.js", ":/console/top.js", script},
    {"/texts.json", ":/console/texts.json", json},
    {"/words.json", ":/quillonctl/words.json", json},
    {"/icon.svg", ":/console/icon.svg", "image/svg+xml"},
    {"/chart.js", "/usr/share/javascript/chart.js/chart.min.js", script},
};

} // namespace

Reply Assets::answer(const QString &path, const QByteArray &knownTag)
{
    for (const Asset &asset : assets) {
        QFile file(QString::fromLatin1(asset.file));
        if (path != QLatin1String(asset.path) || !file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray content = file.readAll();
        const QByteArray hash =
            QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex().left(32);
        const QByteArray tag = '"' + hash + '"';
        const QList<QPair<QByteArray, QByteArray>> headers{{"Cache-Control", "no-cache"}, {"ETag", tag}};
        if (tag == knownTag)
            return {304, {}, {}, headers};
        return {200, asset.contentType, content, headers};
    }
    return Reply::notFound();
}
