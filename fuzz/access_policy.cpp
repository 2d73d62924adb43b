// The file tools' confinement on a real file system with symbolic links. Each input builds a
// small tree of folders, files and links in a scratch directory, then makes a few tool calls
// through FileService::execute with an AccessPolicy over two shared folders. A model written
// here from the path-resolution rules alone (an in-memory tree and its own walk, one component
// at a time, links followed in every component) predicts each call:
//  - the same refusal ("No shared folder named ...", "Path escapes the shared folder.", "Path
//    leads outside the shared folders.", "The companion's own files cannot be reached."), the
//    same "not found" or "is a file", any "Could not ..." where the system refuses the write;
//  - a read returns the content of the file the model reaches, a listing the entries of the
//    folder it reaches (never the own folder A/own), a search the files inside A and B that it
//    finds without following links, a write changes exactly the file the model predicts and is
//    shown to the user as a link when it goes elsewhere;
//  - after every call the whole scratch tree equals the model's: nothing outside A and B, and
//    nothing in A/own, changed; and no name an escaping path could make appeared above it.
//
// Input, bytes:
//   byte 0         number of entries, mod 13
//   3 per entry    parent folder, mod the folders so far (A, B, out, A/own, the scratch root,
//                  then each folder made by an entry); name and kind: name = b mod 6 of
//                  x y d e own secret, kind = b / 6 mod 4 of folder, file, link, link; link
//                  target, mod `linkTargets` ("$" the scratch root, "@" the link's own name).
//                  An entry whose name is taken is skipped.
//   then calls     up to 6, each a tool byte (b mod 4: read, list, write, search; 0x10 a
//                  leading "/", 0x20 a trailing "/"), then for search one byte for the query
//                  (mod `queries`), else a count byte (mod 9) and that many pieces of the agent
//                  path (mod `pathPieces`), joined with "/". A call cut short is dropped.
// The fixed tree: shared folders A and B, the companion's own folder A/own holding "secret",
// and out/secret outside. Every file holds text of its own.

#include "AccessPolicy.h"
#include "FileService.h"
#include "FuzzCheck.h"
#include "SharedFolder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUuid>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

// The kernel's limit on links in one lookup (path_resolution(7)).
constexpr int mostLinks = 40;
constexpr int maxEntries = 12;
constexpr std::size_t maxCalls = 6;
constexpr int maxPieces = 8;

const char* const entryNames[] = {"x", "y", "d", "e", "own", "secret"};

// Relative, climbing, into the other folder, outside, into the own files, absolute, missing,
// the top, and the link itself.
// clang-format off
const char* const linkTargets[] = {
    "x", "y", "d", "e", "own", "secret", ".", "..", "../..", "../../..", "./x", "x/", "d/x",
    "d/..", "x/..", "m/x", "m/../x", "../x", "../y/x", "../A", "../B", "../B/x", "../B/d/x",
    "../A/own", "../A/own/secret", "../out", "../out/secret", "../out/x", "../../out/secret",
    "../../A/x", "../../B/d", "../out/../A/x", "../out/d/../../B/x", "own/secret", "own/x",
    "$/A", "$/B", "$/out", "$/out/secret", "$/out/d", "$/out/x", "$/A/own", "$/A/own/secret",
    "$/A/x", "$/B/x", "$/A/d/x", "$/B/d", "$", "$/x", "$/A/..", "$/out/../B/y", "/nonexistent",
    "/", "/x", "@"};
// clang-format on

const char* const pathPieces[] = {"A",   "B",      "C",   "x",  "y", "d", "e",
                                  "own", "secret", "out", "..", ".", ""};

const char* const queries[] = {"x", "y", "d", "e",  "secret", "own",
                               "X", "*", "?", "s*", "*e*",    "t"};

// Names that a path escaping the tree could create next to it or above it.
const char* const probeNames[] = {"x", "y", "d", "e",   "own", "secret",
                                  "A", "B", "C", "out", "m",   "nonexistent"};

enum class Tool { Read, List, Write, Search };

const char* toolName(Tool tool) {
    switch (tool) {
    case Tool::Read:
        return "read";
    case Tool::List:
        return "list";
    case Tool::Write:
        return "write";
    case Tool::Search:
        return "search";
    }
    return "?";
}

// A file system item: 'd' folder, 'f' file (data: content), 'l' link (data: target).
struct Node {
    char kind = 0;
    std::string data;
    friend bool operator==(const Node&, const Node&) = default;
};
// Absolute path to item, the scratch root included.
using Tree = std::map<std::string, Node>;

struct Entry {
    std::string path;
    Node node;
};

struct Call {
    Tool tool = Tool::Read;
    std::string path; // the agent path, or the query of a search
};

struct Input {
    std::vector<Entry> entries;
    std::vector<Call> calls;
};

bool inside(const std::string& path, const std::string& folder) {
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
            path[folder.size()] == '/');
}

std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// --- The world the model knows -----------------------------------------------------------------

struct World {
    std::string root; // the scratch root, a real path
    std::string a, b, out, own;
    std::vector<std::string> above; // the root's ancestors, "/" first
    std::vector<std::string> probes;
    AccessPolicy* policy = nullptr;
    quint64 serial = 0; // makes every content distinct
};

World world;

// Where the model's walk got to.
struct Reached {
    enum Status { Found, Missing, NotFolder, Loop } status = Found;
    // Found: the item. Missing: where it would be made. Else: where the walk stopped.
    std::string place;
    int links = 0;
    // Missing only: whether the rest can be made (nothing after the missing piece climbs up),
    // the folders to make on the way and the file's name last.
    bool creatable = false;
    std::string base;
    std::vector<std::string> made;
};

// What the model's tree has at `path`, links not followed: 0 for nothing. The root's ancestors
// are folders holding nothing else that matters (checked once at the start).
char kindAt(const Tree& tree, const std::string& path) {
    if (const auto it = tree.find(path); it != tree.end()) {
        return it->second.kind;
    }
    for (const std::string& folder : world.above) {
        if (folder == path) {
            return 'd';
        }
    }
    return 0;
}

std::string joined(const std::vector<std::string>& folders) {
    std::string path;
    for (const std::string& folder : folders) {
        path += '/';
        path += folder;
    }
    return path;
}

bool onlyDots(const std::deque<std::string>& pieces) {
    return std::all_of(pieces.begin(), pieces.end(),
                       [](const std::string& piece) { return piece.empty() || piece == "."; });
}

// Path resolution as path_resolution(7) describes it, links followed in every component (the
// last too), ".." taken from the folder actually reached. A trailing "/" or "/." is taken as
// the tools take it in agent paths: it names the same item.
Reached walk(const Tree& tree, const std::string& path) {
    Reached reached;
    std::vector<std::string> at; // folders entered from "/", real
    std::deque<std::string> pending;
    for (std::string& piece : components(path)) {
        pending.push_back(std::move(piece));
    }
    while (!pending.empty()) {
        const std::string piece = pending.front();
        pending.pop_front();
        if (piece.empty() || piece == ".") {
            continue;
        }
        if (piece == "..") {
            if (!at.empty()) {
                at.pop_back();
            }
            continue;
        }
        const std::string next = joined(at) + '/' + piece;
        const char kind = kindAt(tree, next);
        if (kind == 0) {
            reached.status = Reached::Missing;
            reached.place = next;
            reached.base = at.empty() ? "/" : joined(at);
            reached.made.push_back(piece);
            reached.creatable = true;
            while (!pending.empty()) {
                const std::string more = pending.front();
                pending.pop_front();
                if (more == "..") {
                    reached.creatable = false;
                    break;
                }
                if (!more.empty() && more != ".") {
                    reached.place += '/' + more;
                    reached.made.push_back(more);
                }
            }
            return reached;
        }
        if (kind == 'l') {
            if (++reached.links > mostLinks) {
                reached.status = Reached::Loop;
                reached.place = next;
                return reached;
            }
            const std::string& target = tree.at(next).data;
            const std::vector<std::string> parts = components(target);
            pending.insert(pending.begin(), parts.begin(), parts.end());
            if (target.starts_with('/')) {
                at.clear();
            }
            continue;
        }
        const bool last = onlyDots(pending);
        if (!last && kind != 'd') {
            reached.status = Reached::NotFolder;
            reached.place = next;
            return reached;
        }
        at.push_back(piece);
        if (last) {
            reached.place = next;
            return reached;
        }
    }
    reached.place = at.empty() ? "/" : joined(at);
    return reached;
}

bool shared(const std::string& place) {
    return inside(place, world.a) || inside(place, world.b);
}

const QString outsideText = QStringLiteral("Path leads outside the shared folders.");
const QString ownText = QStringLiteral("The companion's own files cannot be reached.");

// The refusal owed for where a walk got to. A walk that failed part way without following a
// link is still where the lexical check put it. A failed walk that stopped among the own files
// is refused too: "not found" there would tell what the own files are.
std::optional<QString> refusal(const Reached& reached) {
    const bool complete = reached.status == Reached::Found || reached.status == Reached::Missing;
    if ((complete || reached.links > 0) && !shared(reached.place)) {
        return outsideText;
    }
    if (inside(reached.place, world.own)) {
        return ownText;
    }
    return std::nullopt;
}

// The agent path as PathResolver must take it: folder name, then the rest applied lexically.
struct Lexical {
    std::optional<QString> error;
    std::string folder;
    std::string root;
    std::string item;
};

std::string normalised(const std::string& path) {
    std::vector<std::string> kept;
    for (const std::string& piece : components(path)) {
        if (piece == "..") {
            if (!kept.empty()) {
                kept.pop_back();
            }
        } else if (!piece.empty() && piece != ".") {
            kept.push_back(piece);
        }
    }
    return kept.empty() ? "/" : joined(kept);
}

Lexical lexical(const std::string& agentPath) {
    const std::size_t begin = agentPath.find_first_not_of('/');
    const std::string trimmed =
        begin == std::string::npos
            ? std::string()
            : agentPath.substr(begin, agentPath.find_last_not_of('/') + 1 - begin);
    const std::size_t slash = trimmed.find('/');
    const std::string first = trimmed.substr(0, slash);
    const std::string inner =
        slash == std::string::npos ? std::string() : trimmed.substr(slash + 1);
    Lexical result;
    if (trimmed.empty() || (first != "A" && first != "B")) {
        result.error = QStringLiteral("No shared folder named '") + QString::fromStdString(first) +
                       QStringLiteral("'. Prefix the path with a folder name. Shared folders: "
                                      "A, B.");
        return result;
    }
    result.folder = first;
    result.root = first == "A" ? world.a : world.b;
    result.item = inner.empty() ? result.root : normalised(result.root + '/' + inner);
    if (!inside(result.item, result.root)) {
        result.error = QStringLiteral("Path escapes the shared folder.");
    }
    return result;
}

// A real path inside A or B as the agents write it.
std::string agentForm(const std::string& place) {
    const bool inA = inside(place, world.a);
    const std::string& root = inA ? world.a : world.b;
    const std::string name = inA ? "A" : "B";
    return place == root ? name : name + place.substr(root.size());
}

struct Listed {
    std::string name;
    char kind;
    qint64 size;
    friend bool operator==(const Listed&, const Listed&) = default;
};

struct Expected {
    enum Kind { Error, Failure, Folders, Listing, Content, Written, Matches } kind = Error;
    QString error; // Error: the whole text
    std::string place;
    std::string content;
    std::string agentPath;          // Listing: the path it reports
    std::vector<Listed> listing;    // by name
    std::vector<std::string> found; // sorted
    QString shown;                  // Written: what the user is asked about
    bool asked = false;             // whether the user is asked to allow a write
    Reached reached;
};

bool globMatch(const char* pattern, const char* name) {
    if (*pattern == '\0') {
        return *name == '\0';
    }
    if (*pattern == '*') {
        for (const char* rest = name;; ++rest) {
            if (globMatch(pattern + 1, rest)) {
                return true;
            }
            if (*rest == '\0') {
                return false;
            }
        }
    }
    return *name != '\0' && (*pattern == '?' || *pattern == *name) &&
           globMatch(pattern + 1, name + 1);
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = char(c - 'A' + 'a');
        }
    }
    return text;
}

bool queryMatches(const std::string& query, const std::string& name) {
    if (query.find_first_of("*?[") != std::string::npos) {
        return globMatch(query.c_str(), name.c_str());
    }
    return lower(name).find(lower(query)) != std::string::npos;
}

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

Expected predictSearch(const Tree& tree, const std::string& query) {
    Expected expected;
    expected.kind = Expected::Matches;
    // The tree holds real paths only, so what lies below a link is not in it.
    for (const auto& [path, node] : tree) {
        if (node.kind == 'f' && shared(path) && !inside(path, world.own) &&
            queryMatches(query, baseName(path))) {
            expected.found.push_back(agentForm(path));
        }
    }
    std::sort(expected.found.begin(), expected.found.end());
    return expected;
}

// What the call must answer; for a write that succeeds, `tree` becomes what it must leave.
Expected predict(Tree& tree, const Call& call, const std::string& content) {
    if (call.tool == Tool::Search) {
        return predictSearch(tree, call.path);
    }
    Expected expected;
    const QString agentPath = QString::fromStdString(call.path);
    if (call.tool == Tool::List && call.path.find_first_not_of("/ ") == std::string::npos) {
        expected.kind = Expected::Folders;
        return expected;
    }
    if (call.tool != Tool::List && call.path.empty()) {
        expected.error = QStringLiteral("A 'path' is required.");
        return expected;
    }
    const Lexical resolved = lexical(call.path);
    if (resolved.error) {
        expected.error = *resolved.error;
        return expected;
    }
    const Reached reached = walk(tree, resolved.item);
    expected.reached = reached;
    const std::optional<QString> refused = refusal(reached);
    if (refused) {
        expected.error = *refused;
        return expected;
    }
    const char kind = reached.status == Reached::Found ? tree.at(reached.place).kind : 0;
    switch (call.tool) {
    case Tool::Read:
        if (kind != 'f') {
            expected.error = QStringLiteral("File not found: ") + agentPath;
            return expected;
        }
        expected.kind = Expected::Content;
        expected.content = tree.at(reached.place).data;
        return expected;
    case Tool::List:
        if (kind == 0) {
            expected.error = QStringLiteral("Path not found: ") + agentPath;
            return expected;
        }
        if (kind != 'd') {
            expected.error = QStringLiteral("Path is a file, not a folder. Use local_read_file.");
            return expected;
        }
        expected.kind = Expected::Listing;
        expected.place = reached.place;
        expected.agentPath = resolved.item == resolved.root
                                 ? resolved.folder
                                 : resolved.folder + resolved.item.substr(resolved.root.size());
        for (const auto& [path, node] : tree) {
            if (path.size() <= reached.place.size() || parentOf(path) != reached.place) {
                continue;
            }
            if (path == world.own) {
                continue;
            }
            expected.listing.push_back(Listed{baseName(path), node.kind == 'd' ? 'd' : 'f',
                                              node.kind == 'd' ? 0 : qint64(node.data.size())});
        }
        return expected;
    case Tool::Write:
        expected.asked = true;
        if (kind == 'd' || reached.status == Reached::NotFolder ||
            reached.status == Reached::Loop ||
            (reached.status == Reached::Missing && !reached.creatable)) {
            expected.kind = Expected::Failure;
            return expected;
        }
        expected.kind = Expected::Written;
        expected.place = reached.place;
        expected.shown = agentPath;
        if (reached.place != resolved.item) {
            expected.shown += QStringLiteral(" (a link to ") +
                              QString::fromStdString(agentForm(reached.place)) + u')';
        }
        if (reached.status == Reached::Missing) {
            std::string folder = reached.base == "/" ? std::string() : reached.base;
            for (std::size_t i = 0; i + 1 < reached.made.size(); ++i) {
                folder += '/' + reached.made[i];
                tree[folder] = Node{'d', {}};
            }
        }
        tree[reached.place] = Node{'f', content};
        return expected;
    case Tool::Search:
        break;
    }
    return expected;
}

// --- The real file system ------------------------------------------------------------------------

// Everything below the directory `fd` goes; `fd` is closed.
void removeBelow(int fd) {
    DIR* dir = ::fdopendir(fd);
    FUZZ_CHECK(dir != nullptr);
    std::vector<std::pair<std::string, bool>> names;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        struct stat status {};
        FUZZ_CHECK(::fstatat(::dirfd(dir), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0);
        names.emplace_back(name, S_ISDIR(status.st_mode));
    }
    for (const auto& [name, folder] : names) {
        if (folder) {
            const int child = ::openat(::dirfd(dir), name.c_str(),
                                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            FUZZ_CHECK(child >= 0);
            removeBelow(child);
        }
        FUZZ_CHECK(::unlinkat(::dirfd(dir), name.c_str(), folder ? AT_REMOVEDIR : 0) == 0);
    }
    ::closedir(dir);
}

void writeFile(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    FUZZ_CHECK(fd >= 0, QString::fromStdString(path));
    FUZZ_CHECK(::write(fd, content.data(), content.size()) == ssize_t(content.size()));
    ::close(fd);
}

// Parents come before their children in the map's order.
void build(const Tree& tree) {
    const int fd = ::open(world.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    removeBelow(fd);
    for (const auto& [path, node] : tree) {
        if (path == world.root) {
            continue;
        }
        switch (node.kind) {
        case 'd':
            FUZZ_CHECK(::mkdir(path.c_str(), 0755) == 0, QString::fromStdString(path));
            break;
        case 'f':
            writeFile(path, node.data);
            break;
        case 'l':
            FUZZ_CHECK(::symlink(node.data.c_str(), path.c_str()) == 0,
                       QString::fromStdString(path));
            break;
        }
    }
}

void scan(int fd, const std::string& path, Tree& tree) {
    DIR* dir = ::fdopendir(fd);
    FUZZ_CHECK(dir != nullptr);
    const int dirFd = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string child = path + '/' + name;
        struct stat status {};
        FUZZ_CHECK(::fstatat(dirFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0);
        Node node;
        if (S_ISDIR(status.st_mode)) {
            node.kind = 'd';
            const int sub =
                ::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            FUZZ_CHECK(sub >= 0);
            scan(sub, child, tree);
        } else if (S_ISREG(status.st_mode)) {
            node.kind = 'f';
            const int file = ::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
            FUZZ_CHECK(file >= 0);
            char buffer[256];
            ssize_t got = 0;
            while ((got = ::read(file, buffer, sizeof buffer)) > 0) {
                node.data.append(buffer, std::size_t(got));
            }
            ::close(file);
        } else if (S_ISLNK(status.st_mode)) {
            node.kind = 'l';
            char buffer[PATH_MAX];
            const ssize_t length = ::readlinkat(dirFd, name.c_str(), buffer, sizeof buffer);
            FUZZ_CHECK(length >= 0);
            node.data.assign(buffer, std::size_t(length));
        } else {
            node.kind = '?';
        }
        tree[child] = std::move(node);
    }
    ::closedir(dir);
}

Tree snapshot() {
    Tree tree;
    tree[world.root] = Node{'d', {}};
    const int fd = ::open(world.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    scan(fd, world.root, tree);
    return tree;
}

// Names next to the tree and above it that must never appear.
std::optional<std::string> strayProbe() {
    struct stat status {};
    for (const std::string& probe : world.probes) {
        if (::lstat(probe.c_str(), &status) == 0 || errno != ENOENT) {
            return probe;
        }
    }
    return std::nullopt;
}

// --- Input ---------------------------------------------------------------------------------------

Tree skeleton() {
    Tree tree;
    tree[world.root] = Node{'d', {}};
    tree[world.a] = Node{'d', {}};
    tree[world.b] = Node{'d', {}};
    tree[world.out] = Node{'d', {}};
    tree[world.out + "/secret"] = Node{'f', "outside the shared folders"};
    tree[world.own] = Node{'d', {}};
    tree[world.own + "/secret"] = Node{'f', "the companion's own"};
    return tree;
}

Input decode(const uint8_t* data, size_t size, Tree& tree) {
    Input input;
    size_t at = 0;
    auto next = [&](uint8_t& byte) {
        if (at >= size) {
            return false;
        }
        byte = data[at++];
        return true;
    };
    uint8_t byte = 0;
    if (!next(byte)) {
        return input;
    }
    const int entries = byte % (maxEntries + 1);
    std::vector<std::string> folders{world.a, world.b, world.out, world.own, world.root};
    for (int i = 0; i < entries; ++i) {
        uint8_t parent = 0;
        uint8_t shape = 0;
        uint8_t target = 0;
        if (!next(parent) || !next(shape) || !next(target)) {
            return input;
        }
        const std::string name = entryNames[shape % std::size(entryNames)];
        const std::string path = folders[parent % folders.size()] + '/' + name;
        if (tree.count(path) != 0) {
            continue;
        }
        Node node;
        switch ((shape / std::size(entryNames)) % 4) {
        case 0:
            node.kind = 'd';
            folders.push_back(path);
            break;
        case 1:
            node.kind = 'f';
            node.data = "file " + path.substr(world.root.size() + 1) + " #" +
                        std::to_string(++world.serial);
            break;
        default: {
            node.kind = 'l';
            const std::string token = linkTargets[target % std::size(linkTargets)];
            if (token == "@") {
                node.data = name;
            } else if (token.starts_with('$')) {
                node.data = world.root + token.substr(1);
            } else {
                node.data = token;
            }
        }
        }
        tree[path] = node;
        input.entries.push_back(Entry{path, node});
    }
    while (input.calls.size() < maxCalls) {
        uint8_t head = 0;
        if (!next(head)) {
            break;
        }
        Call call;
        call.tool = Tool(head % 4);
        if (call.tool == Tool::Search) {
            uint8_t query = 0;
            if (!next(query)) {
                break;
            }
            call.path = queries[query % std::size(queries)];
            input.calls.push_back(std::move(call));
            continue;
        }
        uint8_t count = 0;
        if (!next(count)) {
            break;
        }
        std::string path = (head & 0x10) != 0 ? "/" : "";
        bool complete = true;
        for (int i = 0; i < count % (maxPieces + 1); ++i) {
            uint8_t piece = 0;
            if (!next(piece)) {
                complete = false;
                break;
            }
            if (i > 0) {
                path += '/';
            }
            path += pathPieces[piece % std::size(pathPieces)];
        }
        if (!complete) {
            break;
        }
        if ((head & 0x20) != 0) {
            path += '/';
        }
        call.path = std::move(path);
        input.calls.push_back(std::move(call));
    }
    return input;
}

// --- Rendering, only when a check fails ----------------------------------------------------------

QString shortPath(const std::string& path) {
    if (inside(path, world.root)) {
        return path == world.root ? QStringLiteral("$")
                                  : QString::fromStdString("$" + path.substr(world.root.size()));
    }
    return QString::fromStdString(path);
}

QString describeNode(const Node& node) {
    switch (node.kind) {
    case 'd':
        return QStringLiteral("folder");
    case 'f':
        return QStringLiteral("file ") + fuzzQuote(QString::fromStdString(node.data));
    case 'l':
        return QStringLiteral("link -> ") + QString::fromStdString(node.data);
    }
    return QStringLiteral("other");
}

QString describeTree(const Tree& tree) {
    QString text;
    for (const auto& [path, node] : tree) {
        text += QStringLiteral("\n  ") + shortPath(path) + u' ' + describeNode(node);
    }
    return text;
}

QString describeReached(const Reached& reached) {
    static const char* const statuses[] = {"found", "missing", "not a folder", "loop"};
    return QString::fromLatin1(statuses[reached.status]) + u' ' + shortPath(reached.place) +
           QStringLiteral(", %1 links").arg(reached.links) +
           (reached.status == Reached::Missing && !reached.creatable
                ? QStringLiteral(", cannot be made")
                : QString());
}

QString describeInput(const Input& input, std::size_t upTo) {
    QString text = QStringLiteral("scratch root $ = ") + QString::fromStdString(world.root) +
                   QStringLiteral("\nentries:");
    for (const Entry& entry : input.entries) {
        text += QStringLiteral("\n  ") + shortPath(entry.path) + u' ' + describeNode(entry.node);
    }
    text += QStringLiteral("\ncalls:");
    for (std::size_t i = 0; i <= upTo && i < input.calls.size(); ++i) {
        text += QStringLiteral("\n  %1 ").arg(i + 1) +
                QString::fromLatin1(toolName(input.calls[i].tool)) + u' ' +
                fuzzQuote(QString::fromStdString(input.calls[i].path));
    }
    return text;
}

// --- The checks ----------------------------------------------------------------------------------

std::vector<Listed> listedItems(const QJsonObject& object) {
    std::vector<Listed> items;
    for (const QJsonValue& value : object.value(QStringLiteral("items")).toArray()) {
        const QJsonObject item = value.toObject();
        const bool folder = item.value(QStringLiteral("type")) == QStringLiteral("folder");
        items.push_back(
            Listed{item.value(QStringLiteral("name")).toString().toStdString(), folder ? 'd' : 'f',
                   folder ? 0 : item.value(QStringLiteral("size_bytes")).toInteger(-1)});
    }
    return items;
}

// The first property the answer breaks, or nothing.
#define EXPECT(condition)                                                                          \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            return #condition;                                                                     \
        }                                                                                          \
    } while (false)

const char* checkCall(const Call& call, const Expected& expected, const QJsonObject& got,
                      const std::optional<QString>& shown, qint64 askedBytes,
                      const std::string& content) {
    EXPECT(shown.has_value() == expected.asked);
    EXPECT(!shown || askedBytes == qint64(content.size()));
    const QJsonValue error = got.value(QStringLiteral("error"));
    switch (expected.kind) {
    case Expected::Error:
        EXPECT(error.toString() == expected.error);
        return nullptr;
    case Expected::Failure:
        EXPECT(error.toString().startsWith(QStringLiteral("Could not ")));
        return nullptr;
    default:
        break;
    }
    EXPECT(error.isUndefined());
    switch (expected.kind) {
    case Expected::Folders:
        EXPECT((listedItems(got) == std::vector<Listed>{{"A", 'd', 0}, {"B", 'd', 0}}));
        return nullptr;
    case Expected::Listing:
        EXPECT(got.value(QStringLiteral("path")).toString().toStdString() == expected.agentPath);
        EXPECT(listedItems(got) == expected.listing);
        EXPECT(got.value(QStringLiteral("count")).toInteger() == qint64(expected.listing.size()));
        return nullptr;
    case Expected::Content:
        EXPECT(got.value(QStringLiteral("content")).toString() ==
               QString::fromStdString(expected.content));
        EXPECT(got.value(QStringLiteral("truncated")) == QJsonValue(false));
        EXPECT(got.value(QStringLiteral("path")).toString().toStdString() == call.path);
        return nullptr;
    case Expected::Written:
        EXPECT(got.value(QStringLiteral("success")) == QJsonValue(true));
        EXPECT(shown == expected.shown);
        return nullptr;
    case Expected::Matches: {
        std::vector<std::string> found;
        for (const QJsonValue& value : got.value(QStringLiteral("matches")).toArray()) {
            found.push_back(value.toString().toStdString());
        }
        std::sort(found.begin(), found.end());
        EXPECT(found == expected.found);
        return nullptr;
    }
    default:
        return nullptr;
    }
}

#undef EXPECT

QString describeExpected(const Expected& expected) {
    QString text = QStringLiteral("model walk: ") + describeReached(expected.reached) +
                   QStringLiteral("\nexpected: ");
    switch (expected.kind) {
    case Expected::Error:
        return text + fuzzQuote(expected.error);
    case Expected::Failure:
        return text + QStringLiteral("\"Could not ...\"");
    case Expected::Folders:
        return text + QStringLiteral("the shared folders");
    case Expected::Listing:
        return text + QStringLiteral("the listing of ") + shortPath(expected.place);
    case Expected::Content:
        return text + QStringLiteral("content ") +
               fuzzQuote(QString::fromStdString(expected.content));
    case Expected::Written:
        return text + QStringLiteral("a write to ") + shortPath(expected.place) +
               QStringLiteral(", shown as ") + fuzzQuote(expected.shown);
    case Expected::Matches: {
        QStringList found;
        for (const std::string& path : expected.found) {
            found.append(QString::fromStdString(path));
        }
        return text + QStringLiteral("matches ") + found.join(u' ');
    }
    }
    return text;
}

QString describeChanges(const Tree& before, const Tree& after) {
    QString text;
    for (const auto& [path, node] : before) {
        const auto it = after.find(path);
        if (it == after.end()) {
            text += QStringLiteral("\n  gone: ") + shortPath(path) + u' ' + describeNode(node);
        } else if (!(it->second == node)) {
            text += QStringLiteral("\n  changed: ") + shortPath(path) + u' ' + describeNode(node) +
                    QStringLiteral(" => ") + describeNode(it->second);
        }
    }
    for (const auto& [path, node] : after) {
        if (before.count(path) == 0) {
            text += QStringLiteral("\n  new: ") + shortPath(path) + u' ' + describeNode(node);
        }
    }
    return text;
}

// Whether the real tree outside A and B, and inside A/own, is the same in both.
bool outsideUnchanged(const Tree& before, const Tree& after) {
    const auto guarded = [](const std::string& path) {
        return !shared(path) || inside(path, world.own);
    };
    for (const auto& [path, node] : before) {
        if (guarded(path)) {
            const auto it = after.find(path);
            if (it == after.end() || !(it->second == node)) {
                return false;
            }
        }
    }
    for (const auto& [path, node] : after) {
        if (guarded(path) && before.count(path) == 0) {
            return false;
        }
    }
    return true;
}

QJsonObject paramsFor(const Call& call, const std::string& content) {
    switch (call.tool) {
    case Tool::Search:
        return QJsonObject{{QStringLiteral("query"), QString::fromStdString(call.path)}};
    case Tool::Write:
        return QJsonObject{{QStringLiteral("path"), QString::fromStdString(call.path)},
                           {QStringLiteral("content"), QString::fromStdString(content)}};
    default:
        return QJsonObject{{QStringLiteral("path"), QString::fromStdString(call.path)}};
    }
}

QString methodFor(Tool tool) {
    switch (tool) {
    case Tool::Read:
        return QStringLiteral("local_read_file");
    case Tool::List:
        return QStringLiteral("local_list_files");
    case Tool::Write:
        return QStringLiteral("local_write_file");
    case Tool::Search:
        return QStringLiteral("local_search_files");
    }
    return QString();
}

void run(const uint8_t* data, size_t size) {
    Tree model = skeleton();
    const Input input = decode(data, size, model);
    build(model);
    Tree before = snapshot();
    FUZZ_CHECK(before == model, QStringLiteral("the tree was not built as decoded:") +
                                    describeChanges(model, before));

    for (std::size_t i = 0; i < input.calls.size(); ++i) {
        const Call& call = input.calls[i];
        const std::string content = "written #" + std::to_string(++world.serial);
        const Expected expected = predict(model, call, content);

        std::optional<QString> shown;
        qint64 askedBytes = -1;
        const FileService::Approver approve = [&](const QString& path, qint64 bytes) {
            shown = path;
            askedBytes = bytes;
            return true;
        };
        const QJsonObject got = FileService::execute(methodFor(call.tool), paramsFor(call, content),
                                                     *world.policy, approve)
                                    .toObject();
        const Tree after = snapshot();

        const auto detail = [&] {
            return describeInput(input, i) + u'\n' + describeExpected(expected) +
                   QStringLiteral("\ngot: ") +
                   QString::fromUtf8(QJsonDocument(got).toJson(QJsonDocument::Compact)) +
                   (shown ? QStringLiteral("\nasked the user about ") + fuzzQuote(*shown)
                          : QString()) +
                   QStringLiteral("\nchanges to the tree:") + describeChanges(before, after) +
                   QStringLiteral("\nthe model's tree after the call:") + describeTree(model);
        };

        // First what matters most: nothing outside the shared folders, or of the companion's
        // own, changed.
        if (!outsideUnchanged(before, after)) {
            fuzzFail("something outside A and B, or in A/own, changed", detail());
        }
        if (const std::optional<std::string> stray = strayProbe()) {
            fuzzFail("something appeared above the scratch tree",
                     QString::fromStdString(*stray) + u'\n' + detail());
        }
        if (const char* broken = checkCall(call, expected, got, shown, askedBytes, content)) {
            fuzzFail(broken, detail());
        }
        // A write changed exactly the file predicted; anything else changed nothing.
        FUZZ_CHECK(after == model, detail());
        before = after;
    }
}

// --- Set-up --------------------------------------------------------------------------------------

bool onTmpfs(const char* path) {
    struct statfs info {};
    return ::statfs(path, &info) == 0 && info.f_type == TMPFS_MAGIC;
}

void removeScratch() {
    const std::string parent = parentOf(world.root);
    const int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        removeBelow(fd);
        ::rmdir(parent.c_str());
    }
}

void setUp() {
    // Rebuilt at every input, so kept in memory when possible.
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp && *tmp ? tmp : "/tmp";
    if (!onTmpfs(base.c_str()) && onTmpfs("/dev/shm") && ::access("/dev/shm", W_OK) == 0) {
        base = "/dev/shm";
    }
    std::string pattern = base + "/access_policy.XXXXXX";
    FUZZ_CHECK(::mkdtemp(pattern.data()) != nullptr, QString::fromStdString(pattern));
    // The model knows real paths only.
    char* real = ::realpath(pattern.c_str(), nullptr);
    FUZZ_CHECK(real != nullptr);
    const std::string parent = real;
    std::free(real);
    world.root = parent + "/tree";
    FUZZ_CHECK(::mkdir(world.root.c_str(), 0755) == 0);
    std::atexit(removeScratch);
    world.a = world.root + "/A";
    world.b = world.root + "/B";
    world.out = world.root + "/out";
    world.own = world.a + "/own";

    for (std::string folder = parent;; folder = parentOf(folder)) {
        world.above.push_back(folder);
        if (folder == "/") {
            break;
        }
    }
    std::reverse(world.above.begin(), world.above.end());
    for (const std::string& folder : world.above) {
        for (const char* name : probeNames) {
            world.probes.push_back((folder == "/" ? std::string() : folder) + '/' + name);
        }
    }
    if (const std::optional<std::string> stray = strayProbe()) {
        fuzzFail("a name the model takes as missing exists next to the scratch tree; set "
                 "TMPDIR to another directory",
                 QString::fromStdString(*stray));
    }

    build(skeleton());
    world.policy = new AccessPolicy(
        {SharedFolder{QUuid(0x1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), QStringLiteral("A"),
                      QString::fromStdString(world.a), std::nullopt},
         SharedFolder{QUuid(0x2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), QStringLiteral("B"),
                      QString::fromStdString(world.b), std::nullopt}},
        QStringList{QString::fromStdString(world.own)});
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    run(data, size);
    return 0;
}
