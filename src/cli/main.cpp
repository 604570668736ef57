// quillwave-cli: lists song files and shows their tags.
#include "app/SongTableColumns.h"
#include "cli/SongCollector.h"
#include "cli/SongReport.h"
#include "common/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QTextStream>

#include <cstdio>

namespace {

const char *kUsage = R"(usage:
  quillwave-cli list [PATH...] [--sort COLUMN] [--reverse] [--format tsv|json] [--quiet]
  quillwave-cli show FILE... [--format text|json] [--quiet]

list   walks the folders (default ~/Music) and prints one row per song.
show   prints every field, the frame list, the pictures and the lyrics of each file.
--quiet  leaves out the tag readers' diagnostic lines.
sort columns: )";

struct Options {
    QString command;
    QStringList paths;
    QString sort;
    bool reverse = false;
    QString format;
    bool quiet = false;
};

int usage(QTextStream &err, const QString &problem = {}) {
    if (!problem.isEmpty()) err << "quillwave-cli: " << problem << '\n';
    err << kUsage << SongTableColumns::identifiers().join(QStringLiteral(", ")) << Qt::endl;
    return 2;
}

bool parse(const QStringList &args, Options &o, QString &problem) {
    if (args.size() < 2) {
        problem = QStringLiteral("a command is needed");
        return false;
    }
    o.command = args[1];
    for (qsizetype i = 2; i < args.size(); ++i) {
        const QString &a = args[i];
        const auto value = [&](QString &target) {
            if (i + 1 >= args.size()) {
                problem = QStringLiteral("%1 needs a value").arg(a);
                return false;
            }
            target = args[++i];
            return true;
        };
        if (a == QLatin1String("--sort")) {
            if (!value(o.sort)) return false;
        } else if (a == QLatin1String("--format")) {
            if (!value(o.format)) return false;
        } else if (a == QLatin1String("--reverse")) {
            o.reverse = true;
        } else if (a == QLatin1String("--quiet")) {
            o.quiet = true;
        } else if (a == QLatin1String("--")) {
            o.paths += args.mid(i + 1);
            break;
        } else if (a.startsWith(QLatin1String("--"))) {
            problem = QStringLiteral("unknown option %1").arg(a);
            return false;
        } else {
            o.paths.append(a);
        }
    }
    return true;
}

int runList(const Options &o, QTextStream &out, QTextStream &err) {
    const QString format = o.format.isEmpty() ? QStringLiteral("tsv") : o.format;
    if (format != QLatin1String("tsv") && format != QLatin1String("json"))
        return usage(err, QStringLiteral("unknown format %1").arg(format));
    if (!o.sort.isEmpty() && !SongTableColumns::compareForColumn(o.sort))
        return usage(err, QStringLiteral("unknown sort column %1").arg(o.sort));
    const QStringList paths =
        o.paths.isEmpty() ? QStringList{QDir::homePath() + QStringLiteral("/Music")} : o.paths;
    SongCollector collector(err);
    QList<SongFilePtr> songs = collector.collect(paths);
    if (!o.sort.isEmpty() || o.reverse) SongTableColumns::sortSongs(songs, o.sort, o.reverse);
    if (format == QLatin1String("json"))
        out << QJsonDocument(SongReport::listJson(songs)).toJson(QJsonDocument::Indented);
    else
        SongReport::writeListTsv(out, songs);
    return 0;
}

int runShow(const Options &o, QTextStream &out, QTextStream &err) {
    const QString format = o.format.isEmpty() ? QStringLiteral("text") : o.format;
    if (format != QLatin1String("text") && format != QLatin1String("json"))
        return usage(err, QStringLiteral("unknown format %1").arg(format));
    if (o.paths.isEmpty()) return usage(err, QStringLiteral("show needs at least one file"));
    QJsonArray shown;
    int failures = 0;
    for (const QString &path : o.paths) {
        SongFilePtr song = SongFile::songWithPath(QDir::current().absoluteFilePath(path));
        if (!song) {
            err << "quillwave-cli: " << path << ": not a song file (missing, or under 255 bytes)" << Qt::endl;
            ++failures;
            continue;
        }
        if (!song->infotag()) {
            err << "quillwave-cli: " << path << ": no readable tag" << Qt::endl;
            song->setActivityStatus(SongFile::StatusProblem);
        }
        if (format == QLatin1String("json"))
            shown.append(SongReport::showObject(*song));
        else
            SongReport::writeShowText(out, *song);
    }
    if (format == QLatin1String("json")) out << QJsonDocument(shown).toJson(QJsonDocument::Indented);
    return failures ? 1 : 0;
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quillwave"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    Options options;
    QString problem;
    if (!parse(QCoreApplication::arguments(), options, problem)) return usage(err, problem);
    Log::setConsoleEnabled(!options.quiet);
    if (options.command == QLatin1String("list")) return runList(options, out, err);
    if (options.command == QLatin1String("show")) return runShow(options, out, err);
    if (options.command == QLatin1String("help") || options.command == QLatin1String("--help")) {
        usage(out);
        return 0;
    }
    return usage(err, QStringLiteral("unknown command %1").arg(options.command));
}
