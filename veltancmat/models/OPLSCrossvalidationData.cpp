#include "veltancmat/models/OPLSCrossvalidationData.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cstdint>
#include <istream>
#include <ostream>

QvStreamableData OPLSCrossvalidationData::MyStreamableData(1, "OPLSCVD");

namespace {

enum Entry : unsigned short { WLists = 1, PLists, CLists, WOprims, POprims, COprims, YColumnSS, EntryCount };

using MatrixList = OPLSCrossvalidationData::MatrixList;

bool WriteCount(std::size_t count, std::ostream& out)
{
    const auto n = static_cast<std::int32_t>(count);
    return WriteFourBytes(&n, 1, out);
}

bool WriteMatrices(const MatrixList& list, std::ostream& out)
{
    bool ok = WriteCount(list.size(), out);
    for (const NCDataMatrix<float>& m : list)
        ok = ok && (out << m).good();
    return ok;
}

bool WriteLists(const std::vector<MatrixList>& lists, std::ostream& out)
{
    bool ok = WriteCount(lists.size(), out);
    for (const MatrixList& list : lists)
        ok = ok && WriteMatrices(list, out);
    return ok;
}

std::size_t ReadCount(std::istream& in)
{
    std::int32_t n = 0;
    if (!ReadFourBytes(&n, 1, in) || n < 0)
        throw QvStreamError();
    return static_cast<std::size_t>(n);
}

MatrixList ReadMatrices(std::istream& in)
{
    MatrixList list(ReadCount(in));
    for (NCDataMatrix<float>& m : list)
        if (!(in >> m))
            throw QvStreamError();
    return list;
}

std::vector<MatrixList> ReadLists(std::istream& in)
{
    std::vector<MatrixList> lists(ReadCount(in));
    for (MatrixList& list : lists)
        list = ReadMatrices(in);
    return lists;
}

} // namespace

OPLSCrossvalidationData::OPLSCrossvalidationData(int rounds, const NCDataMatrix<float>& y)
    : m_wLists(static_cast<std::size_t>(std::max(rounds, 0))), m_pLists(m_wLists.size()), m_cLists(m_wLists.size()),
      m_woprims(m_wLists.size()), m_poprims(m_wLists.size()), m_coprims(m_wLists.size()),
      m_ssY(y.SizeColumns())
{
    for (int j = 1; j <= y.SizeColumns(); ++j)
        m_ssY(j, static_cast<float>(y.GetColumnSS(j)));
}

OPLSCrossvalidationData::~OPLSCrossvalidationData() = default;

void OPLSCrossvalidationData::clear()
{
    m_wLists.clear();
    m_pLists.clear();
    m_cLists.clear();
    m_woprims.clear();
    m_poprims.clear();
    m_coprims.clear();
    m_ssY.Clear();
}

void OPLSCrossvalidationData::SetRound(int g, const MatrixList& wList, const MatrixList& pList,
                                       const MatrixList& cList, const NCDataMatrix<float>& woprim,
                                       const NCDataMatrix<float>& poprim, const NCDataMatrix<float>& coprim)
{
    if (g < 0 || g >= SizeRounds())
        throw NCInternalError("OPLSCrossvalidationData::SetRound");
    const auto slot = static_cast<std::size_t>(g);
    m_wLists[slot] = wList;
    m_pLists[slot] = pList;
    m_cLists[slot] = cList;
    m_woprims[slot] = woprim;
    m_poprims[slot] = poprim;
    m_coprims[slot] = coprim;
}

bool OPLSCrossvalidationData::WriteObject(std::ostream& out) const
{
    return QvStreamableStartWrite(out);
}

bool OPLSCrossvalidationData::ReadObject(std::istream& in)
{
    return QvStreamableStartRead(in);
}

bool OPLSCrossvalidationData::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return UnLoad(out); });
}

bool OPLSCrossvalidationData::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 1, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return ReLoad(in); });
}

void OPLSCrossvalidationData::QvStreamableReset() const
{
    m_streaming = false;
    for (const MatrixList* list : {&m_woprims, &m_poprims, &m_coprims})
        for (const NCDataMatrix<float>& m : *list)
            m.QvStreamableReset();
    for (const std::vector<MatrixList>* lists : {&m_wLists, &m_pLists, &m_cLists})
        for (const MatrixList& list : *lists)
            for (const NCDataMatrix<float>& m : list)
                m.QvStreamableReset();
    m_ssY.QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}

bool OPLSCrossvalidationData::UnLoad(std::ostream& out) const
{
    OutputStreamDirectory directory(out, EntryCount);
    bool ok = WriteLists(m_wLists, directory.GetOutput(WLists));
    ok = ok && WriteLists(m_pLists, directory.GetOutput(PLists));
    ok = ok && WriteLists(m_cLists, directory.GetOutput(CLists));
    ok = ok && WriteMatrices(m_woprims, directory.GetOutput(WOprims));
    ok = ok && WriteMatrices(m_poprims, directory.GetOutput(POprims));
    ok = ok && WriteMatrices(m_coprims, directory.GetOutput(COprims));
    ok = ok && (directory.GetOutput(YColumnSS) << m_ssY).good();
    return directory.Close() && ok && out.good();
}

// Reads into fresh lists and takes them only when the whole record was
// read, so a damaged record leaves the object as it was.
bool OPLSCrossvalidationData::ReLoad(std::istream& in)
{
    InputStreamDirectory directory(in);
    try {
        OPLSCrossvalidationData read;
        read.m_wLists = ReadLists(directory.GetRequiredInput(WLists));
        read.m_pLists = ReadLists(directory.GetRequiredInput(PLists));
        read.m_cLists = ReadLists(directory.GetRequiredInput(CLists));
        read.m_woprims = ReadMatrices(directory.GetRequiredInput(WOprims));
        read.m_poprims = ReadMatrices(directory.GetRequiredInput(POprims));
        read.m_coprims = ReadMatrices(directory.GetRequiredInput(COprims));
        if (!(directory.GetRequiredInput(YColumnSS) >> read.m_ssY))
            throw QvStreamError();
        const std::size_t rounds = read.m_wLists.size();
        for (std::size_t size : {read.m_pLists.size(), read.m_cLists.size(), read.m_woprims.size(),
                                 read.m_poprims.size(), read.m_coprims.size()})
            if (size != rounds)
                throw QvStreamError();
        if (!directory.Close() || !in.good())
            return false;
        read.m_streaming = m_streaming;
        *this = std::move(read);
        return true;
    } catch (const QvStreamError&) {
        return false;
    }
}
