#include "support/rpm_builder.hpp"

#include <map>
#include <stdexcept>

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/files.hpp"
#include "support/process.hpp"

namespace sealkeep::test {

PayloadEntry regularFile(std::string path, std::string content)
{
    return {PayloadEntry::Kind::Regular, std::move(path), std::move(content)};
}

PayloadEntry directory(std::string path)
{
    return {PayloadEntry::Kind::Directory, std::move(path), {}};
}

PayloadEntry symbolicLink(std::string path, std::string target)
{
    return {PayloadEntry::Kind::Symlink, std::move(path), std::move(target)};
}

PayloadEntry hardLink(std::string path, std::string existingPath)
{
    return {PayloadEntry::Kind::HardLink, std::move(path), std::move(existingPath)};
}

PayloadEntry ghostFile(std::string path)
{
    return {PayloadEntry::Kind::Ghost, std::move(path), ""};
}

namespace {

std::string payloadMacro(std::string const& compressor, int level)
{
    struct Io {
        int level;
        const char* name;
    };
    static const std::map<std::string, Io> ios{
        {"gzip", {9, "gzdio"}}, {"zstd", {19, "zstdio"}}, {"xz", {6, "xzdio"}}, {"bzip2", {9, "bzdio"}}};
    auto found = ios.find(compressor);
    if (found == ios.end())
        throw std::invalid_argument("unknown payload compressor " + compressor);
    return "w" + std::to_string(level > 0 ? level : found->second.level) + "." + found->second.name;
}

void makeParents(std::string const& path)
{
    gchar* parent = g_path_get_dirname(path.c_str());
    g_mkdir_with_parents(parent, 0755);
    g_free(parent);
}

// Lays the entries out under stage, as they are to be installed.
void stageEntries(std::string const& stage, std::vector<PayloadEntry> const& entries)
{
    g_mkdir_with_parents(stage.c_str(), 0755);
    for (auto const& entry : entries) {
        std::string target = stage + entry.path;
        makeParents(target);
        switch (entry.kind) {
        case PayloadEntry::Kind::Regular:
        case PayloadEntry::Kind::Ghost:
            writeText(target, entry.content);
            break;
        case PayloadEntry::Kind::Directory:
            g_mkdir_with_parents(target.c_str(), 0755);
            break;
        case PayloadEntry::Kind::Symlink:
            if (::symlink(entry.content.c_str(), target.c_str()) != 0)
                throw std::runtime_error("symlink failed for " + target);
            break;
        case PayloadEntry::Kind::HardLink:
            if (::link((stage + entry.content).c_str(), target.c_str()) != 0)
                throw std::runtime_error("link failed for " + target);
            break;
        }
    }
}

std::string rpmBuildFile(std::string const& name, std::string const& stage, std::vector<PayloadEntry> const& entries)
{
    std::string text = "Name: " + name +
                       "\nVersion: 1.0\nRelease: 1\nSummary: test package\nLicense: MIT\nBuildArch: noarch\n"
                       "%description\ntest package\n"
                       "%install\nmkdir -p %{buildroot}\ncp -a " +
                       stage + "/. %{buildroot}/\n%files\n";
    for (auto const& entry : entries)
        text += (entry.kind == PayloadEntry::Kind::Directory ? "%dir "
                 : entry.kind == PayloadEntry::Kind::Ghost ? "%ghost "
                                                           : "") +
                entry.path + "\n";
    return text;
}

}  // namespace

std::string buildRpm(std::string const& workDir, std::string const& name, std::vector<PayloadEntry> const& entries,
                     std::string const& compressor, int level)
{
    const std::string top = workDir + "/rpmbuild-" + name;
    const std::string stage = top + "/stage";
    stageEntries(stage, entries);
    const std::string buildFilePath = top + "/" + name + ".spec";
    writeText(buildFilePath, rpmBuildFile(name, stage, entries));

    auto result = runCommand({"rpmbuild", "-bb", "--quiet", "--define", "_topdir " + top, "--define",
                              "_binary_payload " + payloadMacro(compressor, level), "--define", "__os_install_post %{nil}",
                              "--define", "debug_package %{nil}", "--define", "_build_id_links none", buildFilePath});
    std::string rpm = top + "/RPMS/noarch/" + name + "-1.0-1.noarch.rpm";
    if (result.exitCode != 0 || !fileExists(rpm))
        throw std::runtime_error("rpmbuild failed: " + result.errors);
    return rpm;
}

}  // namespace sealkeep::test
