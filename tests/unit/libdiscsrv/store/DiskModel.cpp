#include "DiskModel.h"

#include <algorithm>
#include <filesystem>

#include "support/TemporaryDirectory.h"

namespace QmTest {

namespace {

constexpr std::size_t SECTOR = 512;
/// With more changed names than this, the choices are made at random.
constexpr std::size_t MOST_CHOSEN_NAMES = 7;
constexpr unsigned RANDOM_CHOICES = 12;
constexpr unsigned RANDOM_BYTES = 8;

std::string parentOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == path.npos ? std::string() : path.substr(0, slash);
}

bool isOn(std::minstd_rand& random)
{
    return (random() >> 8) % 2 == 0;
}

/// Writes into a content and makes it longer if needed.
void overwrite(std::string& content, std::size_t at, std::string_view bytes)
{
    if (bytes.empty())
        return;
    content.resize(std::max(content.size(), at + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), content.begin() + static_cast<std::ptrdiff_t>(at));
}

/// Does a WRITE or a RESIZE.
void change(std::string& content, const DiskOperation& operation)
{
    if (operation.kind == DiskOperation::WRITE)
        overwrite(content, operation.at, operation.bytes);
    else
        content.resize(operation.at);
}

/// Writes some of the sectors, perhaps all.
void overwriteSome(std::string& content, std::size_t at, std::string_view bytes,
                   std::minstd_rand& random)
{
    const bool keepsAll = isOn(random);
    while (!bytes.empty()) {
        const std::size_t size = std::min(bytes.size(), SECTOR - at % SECTOR);
        if (keepsAll || isOn(random))
            overwrite(content, at, bytes.substr(0, size));
        at += size;
        bytes.remove_prefix(size);
    }
}

} // namespace

FileTree readTree(const std::string& root)
{
    FileTree tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path().lexically_relative(root).string();
        tree[path] = entry.is_directory() ? std::nullopt : std::optional(contentOf(entry.path()));
    }
    return tree;
}

void writeTree(const std::string& root, const FileTree& tree)
{
    for (const auto& entry : std::filesystem::directory_iterator(root))
        std::filesystem::remove_all(entry.path());
    for (const auto& [path, content] : tree)
        if (content)
            writeFile(root + "/" + path, *content);
        else
            std::filesystem::create_directory(root + "/" + path);
}

DiskModel::DiskModel(const FileTree& durable, const DiskOperations& operations)
{
    m_files[ROOT].isDirectory = true;
    for (const auto& [path, content] : durable) {
        const auto number = static_cast<std::uint32_t>(m_files.size());
        m_durable[path] = number;
        m_files[number] = {!content, content.value_or(""), content.value_or(""), {}};
    }
    m_current = m_durable;
    add(operations);
}

void DiskModel::add(const DiskOperations& operations)
{
    const std::uint32_t first = m_operations;
    std::vector<std::uint32_t> numbers{ROOT};
    for (const auto& [path, number] : m_current)
        numbers.push_back(number);
    const auto addStep = [this](const NameStep& step) {
        m_steps.push_back(step);
        apply(step, m_current);
    };
    for (DiskOperation operation : operations) {
        const std::uint32_t index = m_operations++;
        if (operation.kind == DiskOperation::CREATE || operation.kind == DiskOperation::MKDIR) {
            numbers.push_back(static_cast<std::uint32_t>(m_files.size()));
            m_files[numbers.back()].isDirectory = operation.kind == DiskOperation::MKDIR;
        }
        operation.file = numbers.at(operation.file);
        operation.before += first;
        switch (operation.kind) {
        case DiskOperation::CREATE:
        case DiskOperation::MKDIR:
            addStep({index, operation.path, operation.file});
            break;
        case DiskOperation::WRITE:
        case DiskOperation::RESIZE:
            change(m_files[operation.file].current, operation);
            operation.before = index;
            m_files[operation.file].pending.push_back(operation);
            break;
        case DiskOperation::SYNC:
        case DiskOperation::FAILED_SYNC:
            sync(operation);
            break;
        case DiskOperation::RENAME:
            addStep({index, operation.to, operation.file});
            addStep({index, operation.path, operation.file, false, true});
            break;
        case DiskOperation::UNLINK:
            addStep({index, operation.path, operation.file, false});
            break;
        case DiskOperation::RESERVE:
        case DiskOperation::NOTE:
            break;
        }
    }
}

void DiskModel::sync(const DiskOperation& operation)
{
    const bool failed = operation.kind == DiskOperation::FAILED_SYNC;
    File& file = m_files[operation.file];
    if (file.isDirectory) {
        if (failed)
            return;
        std::erase_if(m_steps, [&](const NameStep& step) {
            if (step.index >= operation.before || parentOf(step.path) != operation.path)
                return false;
            apply(step, m_durable);
            return true;
        });
        return;
    }
    std::erase_if(file.pending, [&](const DiskOperation& pending) {
        if (pending.before >= operation.before)
            return false;
        if (failed)
            return pending.kind == DiskOperation::WRITE;
        change(file.durable, pending);
        return true;
    });
}

void DiskModel::apply(const NameStep& step, Names& names)
{
    if (step.isLink) {
        names[step.path] = step.file;
        return;
    }
    const auto found = names.find(step.path);
    if (found != names.end() && found->second == step.file)
        names.erase(found);
}

std::string DiskModel::contentOf(const File& file, Bytes bytes, std::minstd_rand& random) const
{
    std::string content = file.durable;
    if (bytes == Bytes::SYNCED)
        return content;
    for (const DiskOperation& pending : file.pending) {
        if (pending.kind == DiskOperation::RESIZE) {
            if (bytes != Bytes::RANDOM || isOn(random))
                content.resize(pending.at);
        } else if (bytes == Bytes::ALL) {
            overwrite(content, pending.at, pending.bytes);
        } else if (bytes == Bytes::SIZES_ONLY) {
            content.resize(std::max(content.size(), pending.at + pending.bytes.size()));
        } else {
            overwriteSome(content, pending.at, pending.bytes, random);
        }
    }
    if (bytes == Bytes::RANDOM && isOn(random) && content.size() > file.durable.size())
        content.resize(file.durable.size()); // the bytes were kept and the new size was lost
    return content;
}

FileTree DiskModel::treeOf(const Names& names, Bytes bytes, std::minstd_rand& random) const
{
    FileTree tree;
    for (const auto& [path, number] : names) {
        const std::string parent = parentOf(path);
        if (!parent.empty() && !tree.contains(parent)) // its directory was lost
            continue;
        const File& file = m_files.at(number);
        tree[path] =
            file.isDirectory ? std::nullopt : std::optional(contentOf(file, bytes, random));
    }
    return tree;
}

std::optional<DiskModel::Names> DiskModel::namesAfter(std::uint64_t keptSteps) const
{
    Names names = m_durable;
    for (std::size_t i = 0; i < m_steps.size(); ++i) {
        if ((keptSteps >> i & 1) == 0)
            continue;
        if (m_steps[i].needsStepBefore && (i == 0 || (keptSteps >> (i - 1) & 1) == 0))
            return std::nullopt;
        apply(m_steps[i], names);
    }
    return names;
}

FileTree DiskModel::afterKill() const
{
    FileTree tree;
    for (const auto& [path, number] : m_current) {
        const File& file = m_files.at(number);
        tree[path] = file.isDirectory ? std::nullopt : std::optional(file.current);
    }
    return tree;
}

FileTree DiskModel::afterWorstCut() const
{
    std::minstd_rand unused;
    return treeOf(m_durable, Bytes::SYNCED, unused);
}

std::set<FileTree> DiskModel::afterCuts(std::uint32_t seed) const
{
    std::minstd_rand random(seed);
    const std::uint64_t all = (std::uint64_t{1} << m_steps.size()) - 1;
    std::vector<std::uint64_t> choices;
    if (m_steps.size() <= MOST_CHOSEN_NAMES)
        for (std::uint64_t choice = 0; choice <= all; ++choice)
            choices.push_back(choice);
    else
        for (unsigned i = 0; i < RANDOM_CHOICES; ++i)
            choices.push_back((std::uint64_t{random()} << 30 ^ random()) & all);
    choices.push_back(0);
    choices.push_back(all);

    std::set<FileTree> trees;
    for (const std::uint64_t choice : choices)
        if (const auto names = namesAfter(choice)) {
            trees.insert(treeOf(*names, Bytes::ALL, random));
            trees.insert(treeOf(*names, Bytes::SYNCED, random));
        }
    for (const std::uint64_t choice : {std::uint64_t{0}, all}) {
        trees.insert(treeOf(*namesAfter(choice), Bytes::SIZES_ONLY, random));
        for (unsigned i = 0; i < RANDOM_BYTES; ++i)
            trees.insert(treeOf(*namesAfter(choice), Bytes::RANDOM, random));
    }
    return trees;
}

} // namespace QmTest
