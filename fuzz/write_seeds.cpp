// Writes the seed corpus of records_fuzzer: one small valid record of each
// kind (and a few edge shapes), each behind its selector byte.
//   write_seeds <directory>
#include "fuzz/RecordCheck.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

int g_failures = 0;

void Seed(const std::string& directory, const char* name, RecordCheck::Kind kind, const QvStreamBase& object,
          bool pipe = false)
{
    std::ostringstream record;
    record.put(static_cast<char>(static_cast<std::uint8_t>(kind) | (pipe ? RecordCheck::PipeBit : 0)));
    const bool ok = object.QvStreamableStartWrite(record);
    object.QvStreamableReset();
    std::ofstream file(directory + "/" + name, std::ios::binary);
    file << record.str();
    if (!ok || !file) {
        std::fprintf(stderr, "cannot write seed %s\n", name);
        ++g_failures;
    }
}

template <class T>
NCDataMatrix<T> Table(int rows, int cols)
{
    NCDataMatrix<T> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, (i + j) % 4 == 0 ? NCMisVal<T> : T(i * 10 + j) / T(4));
    return m;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    using RecordCheck::Kind;
    const std::string dir = argv[1];
    Seed(dir, "float-vector", Kind::FloatVector, NCDataVector<float>{1.0f, -99.0f, 2.5f});
    Seed(dir, "float-vector-empty", Kind::FloatVector, NCDataVector<float>());
    Seed(dir, "double-vector", Kind::DoubleVector, NCDataVector<double>{-99.0, 0.125});
    Seed(dir, "double-vector-pipe", Kind::DoubleVector, NCDataVector<double>{3.0, -99.0, 4.0}, true);
    Seed(dir, "float-matrix-3x4", Kind::FloatMatrix, Table<float>(3, 4));
    Seed(dir, "float-matrix-3x0", Kind::FloatMatrix, NCDataMatrix<float>(3, 0));
    Seed(dir, "float-matrix-0x2", Kind::FloatMatrix, NCDataMatrix<float>(0, 2));
    Seed(dir, "float-matrix-pipe", Kind::FloatMatrix, Table<float>(2, 3), true);
    Seed(dir, "double-matrix-2x3", Kind::DoubleMatrix, Table<double>(2, 3));
    Seed(dir, "double-matrix-empty", Kind::DoubleMatrix, NCDataMatrix<double>());
    Seed(dir, "int-vector", Kind::IntVector, NCIntegralVector<int, -99>{1, -99, 5});
    Seed(dir, "ulong-vector", Kind::ULongVector, NCIntegralVector<unsigned long, 0>{7, 0xFFFFFFFFul});
    Seed(dir, "bool-vector", Kind::BoolIntegralVector, NCIntegralVector<bool, 0>{true, false, true});
    BoolVector mask(3, true);
    mask(2) = false;
    Seed(dir, "bool-mask", Kind::BoolMask, mask);
    Seed(dir, "bool-mask-pipe", Kind::BoolMask, BoolVector(1, false), true);
    return g_failures == 0 ? 0 : 1;
}
