// quillwave-cli: lists song files and shows their tags.
#include "app/SongCollector.h"
#include "app/SongTableColumns.h"
#include "cache/SongFileInfoCache.h"
#include "cli/SongReport.h"
#include "cli/TagEditor.h"
#include "common/Log.h"
#include "id3/MP3InfoTag.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QTextStream>

#include <cstdio>

namespace {

const char *kUsage = R"(usage:
  quillwave-cli list [PATH...] [--sort COLUMN] [--reverse] [--format tsv|json] [--no-cache] [--quiet]
  quillwave-cli show FILE... [--format text|json] [--quiet]
  quillwave-cli set FILE... [--title T] [--artist A] [--album B] [--year Y] [--genre G]
                [--track N[/M]] [--bpm N] [--compilation yes|no] [--lyrics TEXT | --lyrics-file F]
                [--add-picture IMAGE]... [--remove-pictures] [--synchsafe-v24] [--quiet]

list   walks the folders (default ~/Music) and prints one row per song. Songs the song info
       cache knows unchanged are listed from it without opening their files (their tag
       version then shows as unknown); --no-cache reads every file afresh.
show   prints every field, the frame list, the pictures and the lyrics of each file.
set    changes the tags and saves each file in the tag version it had; an empty value
       removes the field. Prints the version written, or why a file was not written.
--synchsafe-v24  writes ID3v2.4 frame sizes as synchsafe numbers, as the standard has them
       (by default they are plain numbers, which this program and iTunes have always read).
--quiet  leaves out the tag readers' diagnostic lines.
sort columns: )";

struct Options {
    QString command;
    QStringList paths;
    QString sort;
    bool reverse = false;
    QString format;
    bool quiet = false;
    bool noCache = false;
    TagEdits edits;
    bool synchSafeV24 = false;
};

int usage(QTextStream &err, const QString &problem = {}) {
    if (!problem.isEmpty()) err << "quillwave-cli: " << problem << '\n';
    err << kUsage << SongTableColumns::identifiers().join(QStringLiteral(", ")) << Qt::endl;
    return 2;
}

std::optional<QString> *editField(TagEdits &e, const QString &option) {
    const struct {
        const char *name;
        std::optional<QString> TagEdits::*field;
    } fields[] = {{"--title", &TagEdits::title}, {"--artist", &TagEdits::artist},
                  {"--album", &TagEdits::album}, {"--year", &TagEdits::year},
                  {"--genre", &TagEdits::genre}, {"--track", &TagEdits::track},
                  {"--bpm", &TagEdits::bpm},     {"--lyrics", &TagEdits::lyrics}};
    for (const auto &f : fields) {
        if (option == QLatin1String(f.name)) return &(e.*f.field);
    }
    return nullptr;
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
        } else if (const auto field = editField(o.edits, a)) {
            QString v;
            if (!value(v)) return false;
            *field = v;
        } else if (a == QLatin1String("--lyrics-file")) {
            QString file;
            if (!value(file)) return false;
            QFile f(file);
            if (!f.open(QIODevice::ReadOnly)) {
                problem = QStringLiteral("cannot read %1: %2").arg(file, f.errorString());
                return false;
            }
            o.edits.lyrics = QString::fromUtf8(f.readAll());
        } else if (a == QLatin1String("--compilation")) {
            QString v;
            if (!value(v)) return false;
            if (v != QLatin1String("yes") && v != QLatin1String("no")) {
                problem = QStringLiteral("--compilation takes yes or no");
                return false;
            }
            o.edits.compilation = v == QLatin1String("yes");
        } else if (a == QLatin1String("--add-picture")) {
            QString v;
            if (!value(v)) return false;
            o.edits.addPictures.append(v);
        } else if (a == QLatin1String("--synchsafe-v24")) {
            o.synchSafeV24 = true;
        } else if (a == QLatin1String("--remove-pictures")) {
            o.edits.removePictures = true;
        } else if (a == QLatin1String("--reverse")) {
            o.reverse = true;
        } else if (a == QLatin1String("--no-cache")) {
            o.noCache = true;
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
    SongFileInfoCache *cache = o.noCache ? nullptr : &SongFileInfoCache::sharedCache();
    SongCollector collector(err, cache && cache->isUsable() ? cache : nullptr);
    QList<SongFilePtr> songs = collector.collect(paths);
    if (cache) cache->detach(); // no event loop here to write behind: save now
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

int runSet(const Options &o, QTextStream &out, QTextStream &err) {
    if (o.paths.isEmpty()) return usage(err, QStringLiteral("set needs at least one file"));
    if (o.edits.isEmpty()) return usage(err, QStringLiteral("set needs at least one change"));
    MP3InfoTag::setWriteSynchSafeSizesInV24(o.synchSafeV24);
    int failures = 0;
    for (const QString &path : o.paths) {
        const QString absolute = QDir::current().absoluteFilePath(path);
        SongFilePtr song = SongFile::songWithPath(absolute);
        QString error;
        const QString version = song ? TagEditor::apply(*song, o.edits, &error) : QString();
        if (version.isNull()) {
            if (!song) error = QStringLiteral("not a song file (missing, or under 255 bytes)");
            err << "quillwave-cli: " << path << ": not written: " << error << Qt::endl;
            ++failures;
            continue;
        }
        out << path << '\t' << version << Qt::endl;
    }
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
    if (options.command == QLatin1String("set")) return runSet(options, out, err);
    if (options.command == QLatin1String("help") || options.command == QLatin1String("--help")) {
        usage(out);
        return 0;
    }
    return usage(err, QStringLiteral("unknown command %1").arg(options.command));
}
