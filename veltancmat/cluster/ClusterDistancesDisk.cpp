// The disk path of the general nearest-pair search: the distances between
// rows do not fit in memory, so they are written to temporary files, split
// by distance into partitions that do, and merged one partition at a time,
// smallest distances first. Layout and reasoning: docs/clustering.md.

#include "veltancmat/cluster/ClusterDistances.h"

#include "veltancmat/cluster/PairSquares.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/platform/QvSystemInfo.h"
#include "veltancmat/platform/TempFile.h"
#include "veltancmat/platform/UserComm.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// One candidate merge as stored on the disk: the distance and the ids of
// the two clusters (rows are ids 0..N-1, the m-th merged cluster N + m).
struct NearestPairCalculator::DiskRecord {
    float distance;
    std::uint32_t first;
    std::uint32_t second;
};

namespace {

const CancelText Aborted("Cluster analysis aborted.");

using Record = NearestPairCalculator::DiskRecord;
static_assert(sizeof(Record) == 12, "records are written as they lie in memory");

// Records per temporary-file read or write.
constexpr std::size_t IoRecords = 1 << 16;
// Every this many records of the initial pass one distance is kept to place
// the partition bounds.
constexpr std::size_t SampleStride = 64;

ExceptionMessage FileMessage(const char* text, const std::filesystem::path& path)
{
    ExceptionMessage m = ExceptionMessage::translate(text);
    m % path.string();
    return m;
}

[[noreturn]] void ThrowCannotOpen(const std::filesystem::path& path)
{
    throw DendroGram::ClusterAllocationError(FileMessage("The temporary file {1} could not be opened", path));
}

[[noreturn]] void ThrowReadError()
{
    throw DendroGram::ClusterAllocationError(ExceptionMessage::translate("Error when reading from temporary file."));
}

// A new temporary file; a folder that cannot take one ends the analysis
// as a file that cannot be opened.
TempFile NewTempFile()
{
    try {
        return TempFile("Dendro_");
    } catch (const Exception&) {
        std::filesystem::path folder;
        try {
            folder = QvGetTempDirectory();
        } catch (const Exception&) {
        }
        ThrowCannotOpen(folder / "Dendro_");
    }
}

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

File Open(const std::filesystem::path& path, const char* mode)
{
    File f(std::fopen(path.c_str(), mode));
    if (!f)
        ThrowCannotOpen(path);
    return f;
}

// A full disk ends the analysis like exhausted memory: the distances
// cannot be held.
void Write(std::FILE* f, const Record* records, std::size_t count, int rows)
{
    if (count > 0 && std::fwrite(records, sizeof(Record), count, f) != count)
        throw DendroGram::ClusterAllocationError(rows);
}

void Flush(std::FILE* f, int rows)
{
    if (std::fflush(f) != 0)
        throw DendroGram::ClusterAllocationError(rows);
}

// Reads a whole file of records, handing them to `take` in blocks.
template <class Take>
void ReadAll(const std::filesystem::path& path, const Take& take)
{
    File f = Open(path, "rb");
    std::vector<Record> block(IoRecords);
    for (;;) {
        const std::size_t got = std::fread(block.data(), sizeof(Record), block.size(), f.get());
        if (got < block.size() && std::ferror(f.get()))
            ThrowReadError();
        take(block.data(), got);
        if (got < block.size())
            break;
    }
}

// Tells the user the disk will be used, or asks when it looks too small.
// A "no" ends the analysis.
void AgreeOnDisk(int rows, double neededBytes)
{
    std::filesystem::path folder;
    try {
        folder = QvGetTempDirectory();
    } catch (const Exception&) {
        const char* named = std::getenv("TMPDIR");
        ThrowCannotOpen(std::filesystem::path(named ? named : "") / "Dendro_");
    }
    double free = 0.0;
    try {
        free = static_cast<double>(QvSystemInfo::GetFreeDiskSpace(folder));
    } catch (const Exception&) {
        free = 0.0;
    }
    const std::string caption = ExceptionMessage::translate("Dialog caption", "Cluster Analysis").str();
    const std::shared_ptr<UserComm> comm = UserComm::GetUserComm();
    if (free >= neededBytes) {
        ExceptionMessage m = ExceptionMessage::translate(
            "When doing cluster analysis, a total of N*(N-1)/2 initial distances are calculated. In this case, "
            "enough RAM to hold these distances could not be allocated (N={1}). The disk ('{2}') will be used to "
            "temporarily store the calculated distances. The calculations may be time-consuming but you can "
            "increase the speed by using a fast disk for the temporary storage.");
        m % std::to_string(rows) % folder.string();
        comm->Info(caption, m.str());
        return;
    }
    // Both figures in the unit of the needed space.
    int steps = 0;
    for (double b = neededBytes; b >= 1024.0 && steps < 4; b /= 1024.0)
        ++steps;
    const double unit = std::pow(1024.0, steps);
    const char* prefixes[] = {"", "k", "M", "G", "T"};
    char neededText[64];
    char freeText[64];
    std::snprintf(neededText, sizeof neededText, "%.3f", neededBytes / unit);
    std::snprintf(freeText, sizeof freeText, "%.3f", free / unit);
    ExceptionMessage m = ExceptionMessage::translate(
        "When doing cluster analysis, a total of N*(N-1)/2 initial distances are calculated. In this case, enough "
        "RAM to hold these distances could not be allocated (N={1}). Quorix can use your disk to store these "
        "numbers but it needs {2,num=fixed,precision=3} {3}bytes of free space on the disk where Quorix stores "
        "temporary files ('{4}'). The free space on the disk is currently {5,num=fixed,precision=3} {3}bytes. "
        "Please make sure that there is enough free space on the disk.\nDo you want to continue?");
    m % std::to_string(rows) % neededText % prefixes[steps] % folder.string() % freeText;
    if (!comm->AskYesNo(caption, m.str(), false))
        throw NCError(ExceptionMessage::translate("Cluster analysis aborted."), NCError::Error);
}

} // namespace

// The files and the merge state of one run on the disk.
struct NearestPairCalculator::DiskState {
    struct Partition {
        float upper; // the largest distance it holds
        TempFile file;
        std::size_t count = 0;
        std::vector<Record> pending;
    };

    int rows = 0;
    std::size_t capacity = 0; // records one partition may hold in memory
    std::vector<Partition> partitions;
    std::size_t current = 0;
    std::vector<Record> heap;
    // Per cluster id: its slot (first row), and whether it is current.
    std::vector<std::int32_t> slotOf;
    std::vector<std::uint8_t> alive;
    // Per slot: the id of its current cluster.
    std::vector<std::uint32_t> idOf;
    std::uint32_t nextId = 0;
    std::vector<Record> fresh;
    // Where loading reports while merging: the progress given to Init.
    NCProgress* progress = nullptr;

    // A heap order with the nearest record on top.
    auto Later() const
    {
        return [this](const Record& x, const Record& y) { return Before(y, x); };
    }

    // Makes the current partition the heap, splitting it first when it
    // has grown beyond what memory may hold.
    void Load(NCProgress* progress)
    {
        while (partitions[current].count > capacity && Split(current, progress)) {
        }
        Partition& p = partitions[current];
        ProgressText(progress, ExceptionMessage::translate("Loading distances").str());
        heap.clear();
        ReadAll(p.file.Path(), [&](const Record* r, std::size_t count) {
            for (std::size_t i = 0; i < count; ++i)
                if (Valid(r[i]))
                    heap.push_back(r[i]);
        });
        for (const Record& r : p.pending)
            if (Valid(r))
                heap.push_back(r);
        p.pending = {};
        p.file.Remove();
        ProgressText(progress, ExceptionMessage::translate("Sorting").str());
        std::make_heap(heap.begin(), heap.end(), Later());
        ProgressText(progress, ExceptionMessage::translate("Merging clusters").str());
    }

    // Routes the records of the segments into partitions by distance.
    void SplitSegments(std::vector<TempFile>& segments, std::vector<float> sample, std::size_t total,
                       NCProgress* progress)
    {
        ProgressText(progress, ExceptionMessage::translate("Splitting distances").str());
        ProgressRange(progress, 0.0f, static_cast<float>(std::max<std::size_t>(segments.size(), 1)));
        for (float upper : Bounds(std::move(sample), total, capacity))
            partitions.push_back({upper, NewTempFile(), 0, {}});
        for (std::size_t k = 0; k < segments.size(); ++k) {
            ReadAll(segments[k].Path(), [&](const Record* r, std::size_t count) {
                for (std::size_t i = 0; i < count; ++i)
                    Append(partitions[PartitionOf(r[i].distance)], r[i]);
            });
            segments[k].Remove();
            CheckedSetValue(progress, static_cast<float>(k + 1), Aborted);
        }
        for (Partition& p : partitions)
            Spill(p);
    }

    // Re-partitions partition `index` by the distances it holds; false
    // when they are all alike and cannot be told apart.
    bool Split(std::size_t index, NCProgress* progress)
    {
        ProgressText(progress, ExceptionMessage::translate("Re-partitioning").str());
        Spill(partitions[index]);
        std::vector<float> sample;
        std::size_t seen = 0;
        const std::filesystem::path path = partitions[index].file.Path();
        ReadAll(path, [&](const Record* r, std::size_t count) {
            for (std::size_t i = 0; i < count; ++i, ++seen)
                if (seen % SampleStride == 0 && Valid(r[i]))
                    sample.push_back(r[i].distance);
        });
        std::vector<float> bounds = Bounds(std::move(sample), partitions[index].count, capacity);
        bounds.back() = partitions[index].upper;
        if (bounds.size() < 2)
            return false;
        std::vector<Partition> parts;
        for (float upper : bounds)
            parts.push_back({upper, NewTempFile(), 0, {}});
        ReadAll(path, [&](const Record* r, std::size_t count) {
            for (std::size_t i = 0; i < count; ++i) {
                if (!Valid(r[i]))
                    continue;
                const auto it = std::lower_bound(parts.begin(), parts.end(), r[i].distance,
                                                 [](const Partition& q, float d) { return q.upper < d; });
                Append(it == parts.end() ? parts.back() : *it, r[i]);
            }
        });
        for (Partition& q : parts)
            Spill(q);
        partitions.erase(partitions.begin() + static_cast<std::ptrdiff_t>(index));
        partitions.insert(partitions.begin() + static_cast<std::ptrdiff_t>(index), std::make_move_iterator(parts.begin()),
                          std::make_move_iterator(parts.end()));
        return true;
    }

    // The order of a sorted list: distance, then first and second slot.
    bool Before(const Record& x, const Record& y) const
    {
        return std::make_tuple(x.distance, slotOf[x.first], slotOf[x.second]) <
               std::make_tuple(y.distance, slotOf[y.first], slotOf[y.second]);
    }
    // Ids in slot order, so that the tuple compares (first, second) slots.
    Record Make(float distance, std::uint32_t x, std::uint32_t y) const
    {
        return slotOf[x] < slotOf[y] ? Record{distance, x, y} : Record{distance, y, x};
    }
    bool Valid(const Record& r) const { return alive[r.first] && alive[r.second]; }

    std::size_t PartitionOf(float distance) const
    {
        const auto it = std::lower_bound(partitions.begin() + static_cast<std::ptrdiff_t>(current), partitions.end(),
                                         distance, [](const Partition& p, float d) { return p.upper < d; });
        return it == partitions.end() ? partitions.size() - 1 : static_cast<std::size_t>(it - partitions.begin());
    }

    void Append(Partition& p, const Record& r)
    {
        p.pending.push_back(r);
        ++p.count;
        if (p.pending.size() >= IoRecords / 4)
            Spill(p);
    }
    void Spill(Partition& p)
    {
        if (p.pending.empty())
            return;
        File f = Open(p.file.Path(), "ab");
        Write(f.get(), p.pending.data(), p.pending.size(), rows);
        Flush(f.get(), rows);
        p.pending.clear();
    }

    // New partitions over `sample`'s distances, each expected to hold
    // about half a partition's capacity of `total` records.
    static std::vector<float> Bounds(std::vector<float> sample, std::size_t total, std::size_t capacity)
    {
        std::sort(sample.begin(), sample.end());
        std::vector<float> bounds;
        if (sample.empty())
            return {std::numeric_limits<float>::infinity()};
        const std::size_t parts = std::max<std::size_t>(1, (2 * total + capacity - 1) / capacity);
        for (std::size_t k = 1; k < parts; ++k) {
            const float b = sample[std::min(sample.size() - 1, k * sample.size() / parts)];
            if (bounds.empty() || b > bounds.back())
                bounds.push_back(b);
        }
        bounds.push_back(std::numeric_limits<float>::infinity());
        return bounds;
    }
};

NearestPairCalculator::NearestPairCalculator() = default;

NearestPairCalculator::NearestPairCalculator(const NearestPairCalculator& other)
    : DendroGram::ClusterDistanceCalculator(other), m_slots(other.m_slots), m_triangle(other.m_triangle),
      m_live(other.m_live), m_alive(other.m_alive), m_nearest(other.m_nearest),
      m_nearestDistance(other.m_nearestDistance), m_stale(other.m_stale)
{
}

NearestPairCalculator& NearestPairCalculator::operator=(const NearestPairCalculator& other)
{
    if (this != &other) {
        m_slots = other.m_slots;
        m_triangle = other.m_triangle;
        m_live = other.m_live;
        m_alive = other.m_alive;
        m_nearest = other.m_nearest;
        m_nearestDistance = other.m_nearestDistance;
        m_stale = other.m_stale;
        m_disk.reset();
    }
    return *this;
}

NearestPairCalculator::~NearestPairCalculator() = default;

void NearestPairCalculator::DropDisk()
{
    m_disk.reset();
}

bool NearestPairCalculator::SaveRowsOfSegment(const std::vector<float>& rows, const std::vector<std::uint8_t>& complete,
                                              int columns, int from, int to, std::vector<Record>& block) const
{
    const int n = m_slots;
    const double minCommon = std::sqrt(static_cast<double>(columns));
    bool fewer = false;
#pragma omp parallel for schedule(dynamic, 4) reduction(|| : fewer)
    for (int r = from; r < to; ++r) {
        // Pairs of the rows before r in this segment come first.
        const auto before = static_cast<std::size_t>(r - from);
        const std::size_t offset =
            before * static_cast<std::size_t>(n - 1 - from) - before * (before - (before > 0 ? 1 : 0)) / 2;
        const float* x = rows.data() + static_cast<std::size_t>(r) * static_cast<std::size_t>(columns);
        const int count = n - r - 1;
        std::vector<double> squares(static_cast<std::size_t>(count));
        std::vector<int> common(static_cast<std::size_t>(count));
        DendroGram::RowPairSquares(x, complete[static_cast<std::size_t>(r)] != 0, rows.data(), complete.data(),
                                   nullptr, r + 1, count, columns, squares.data(), common.data());
        for (int q = 0; q < count; ++q) {
            const auto c = static_cast<std::size_t>(q);
            fewer = fewer || common[c] < minCommon;
            block[offset + c] = Record{RowDistance(squares[c], common[c], columns), static_cast<std::uint32_t>(r),
                                       static_cast<std::uint32_t>(r + 1 + q)};
        }
    }
    return fewer;
}

void NearestPairCalculator::InitOnDisk(const std::vector<float>& rows, const std::vector<std::uint8_t>& complete,
                                       int columns, NCProgress* progress)
{
    const int n = m_slots;
    const std::size_t pairs = static_cast<std::size_t>(n) * static_cast<std::size_t>(n - 1) / 2;
    // The initial distances, and as many again written while merging.
    AgreeOnDisk(n, 2.0 * static_cast<double>(pairs) * sizeof(Record));

    auto disk = std::make_unique<DiskState>();
    disk->rows = n;
    disk->capacity = std::max<std::size_t>(1024, DendroGram::GetMemoryLimit() / (2 * sizeof(Record)));
    disk->slotOf.resize(2 * static_cast<std::size_t>(n));
    disk->alive.assign(2 * static_cast<std::size_t>(n), 0);
    disk->idOf.resize(static_cast<std::size_t>(n));
    for (int r = 0; r < n; ++r) {
        disk->slotOf[static_cast<std::size_t>(r)] = r;
        disk->alive[static_cast<std::size_t>(r)] = 1;
        disk->idOf[static_cast<std::size_t>(r)] = static_cast<std::uint32_t>(r);
    }
    disk->nextId = static_cast<std::uint32_t>(n);

    // Segments of whole rows, each about one partition's capacity.
    ProgressText(progress, ProgressCaption(nullptr, "Calculating and saving %1% distances", pairs));
    ProgressRange(progress, 0.0f, static_cast<float>(std::max<std::size_t>(pairs, 1)));
    std::vector<TempFile> segments;
    std::vector<float> sample;
    std::vector<Record> block;
    std::size_t written = 0;
    for (int from = 0; from < n - 1;) {
        int to = from;
        std::size_t count = 0;
        while (to < n - 1 && (count == 0 || count + static_cast<std::size_t>(n - to - 1) <= disk->capacity))
            count += static_cast<std::size_t>(n - 1 - to++);
        block.resize(count);
        const bool fewer = SaveRowsOfSegment(rows, complete, columns, from, to, block);
        if (fewer)
            RefuseTooFewCommonValues();
        segments.push_back(NewTempFile());
        File f = Open(segments.back().Path(), "wb");
        Write(f.get(), block.data(), block.size(), n);
        Flush(f.get(), n);
        for (std::size_t i = (SampleStride - written % SampleStride) % SampleStride; i < block.size();
             i += SampleStride)
            sample.push_back(block[i].distance);
        written += block.size();
        from = to;
        CheckedSetValue(progress, static_cast<float>(written), Aborted);
    }
    block = {};

    disk->SplitSegments(segments, std::move(sample), pairs, progress);
    m_disk = std::move(disk);
    m_live.resize(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        m_live[static_cast<std::size_t>(i)] = i;
    m_disk->progress = progress;
    m_disk->Load(progress);
}

float NearestPairCalculator::MergeOnDisk(int& a, int& b)
{
    DiskState& disk = *m_disk;
    Record nearest{};
    for (;;) {
        while (disk.heap.empty()) {
            if (++disk.current >= disk.partitions.size())
                throw NCInternalError("NearestPairCalculator::FindNearestAndMerge");
            disk.Load(disk.progress);
        }
        std::pop_heap(disk.heap.begin(), disk.heap.end(), disk.Later());
        nearest = disk.heap.back();
        disk.heap.pop_back();
        if (disk.Valid(nearest))
            break;
    }
    const std::int32_t first = disk.slotOf[nearest.first];
    const std::int32_t second = disk.slotOf[nearest.second];
    a = DenseIndex(first);
    b = DenseIndex(second);
    Merged(first, second);
    m_live.erase(m_live.begin() + b);
    disk.alive[nearest.first] = 0;
    disk.alive[nearest.second] = 0;
    const std::uint32_t merged = disk.nextId++;
    disk.slotOf[merged] = first;
    disk.alive[merged] = 1;
    disk.idOf[static_cast<std::size_t>(first)] = merged;

    // The merged cluster's distances to every other one: a new record each.
    const int others = static_cast<int>(m_live.size());
    disk.fresh.resize(static_cast<std::size_t>(others));
#pragma omp parallel for schedule(static) if (others > 2048)
    for (int i = 0; i < others; ++i) {
        const int k = m_live[static_cast<std::size_t>(i)];
        disk.fresh[static_cast<std::size_t>(i)] =
            k == first ? Record{-1.0f, 0, 0} : disk.Make(MergedDistance(first, second, k), merged, disk.idOf[static_cast<std::size_t>(k)]);
    }
    const float upper = disk.partitions[disk.current].upper;
    for (int i = 0; i < others; ++i) {
        const int k = m_live[static_cast<std::size_t>(i)];
        if (k == first)
            continue;
        const Record& r = disk.fresh[static_cast<std::size_t>(i)];
        if (r.distance <= upper) {
            disk.heap.push_back(r);
            std::push_heap(disk.heap.begin(), disk.heap.end(), disk.Later());
        } else {
            disk.Append(disk.partitions[disk.PartitionOf(r.distance)], r);
        }
    }
    return nearest.distance;
}
