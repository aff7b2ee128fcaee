#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/RowTable.h"
#include "veltancmat/containers/frame/SharedBlock.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"

#include <cassert>
#include <iosfwd>
#include <memory>
#include <vector>

class InputStreamDirectory;
template <class T>
class NCSVD;
template <class T>
class NCDataMatrixRow;
template <class T>
class NCDataMatrixCol;
template <class T>
class NCDataMatrixPrim;
template <class T>
class NCMatOpResultProxy;
template <class T>
class NCDataMatrixRows;

// The library's data table (T = float or double): observations in rows,
// variables in columns, both indexed from 1, cells equal to -99 missing.
//
// The matrix is an array of row vectors plus exact missing counts per column
// and in total, so a model can ask how many values of a column are missing
// without a scan. Every member keeps the three kinds of count (each row's,
// each column's, the total) exact, also when a row operation throws.
//
// Copies share the row array until one of them is written; the rows
// themselves are copy-on-write vectors, so unlinking a matrix copies row
// handles, not elements. As with the vector, copies may be used on
// different threads, but one object must not be written by two at once.
//
// Sizes that do not fit together are programming errors and throw
// NCInternalError naming the member ("NCDataMatrix<FloatType>::<member>").
// Column statistics follow the vector rule of the same name on the column's
// present values and return -99 where that rule does.
//
// Products skip missing cells: each result cell sums the complete pairs and
// is missing when there is none. Without missing values they run as plain
// dense loops.
//
// The matrix streams itself as record "NCDM", version 4.
template <class T>
class VELTANCMAT_API NCDataMatrix : public virtual QvStreamBase {
public:
    using value_type = T;
    using Vector = NCDataVector<T>;
    using IndexList = NCIntegralVector<int, -99>;
    static constexpr T MisVal = NCMisVal<T>;

    // ---- construction -------------------------------------------------
    NCDataMatrix() = default;
    NCDataMatrix(int rows, int cols, T fill = T(0));
    NCDataMatrix(const NCDataMatrix& other);
    NCDataMatrix(NCDataMatrix&& other) noexcept;
    NCDataMatrix& operator=(const NCDataMatrix& other);
    NCDataMatrix& operator=(NCDataMatrix&& other) noexcept;
    virtual ~NCDataMatrix();

    // No rows, no columns.
    void Clear();
    // Keeps the cells that remain inside the new size; new cells are zero.
    void SetSize(int rows, int cols);
    // As SetSize, with new cells set to `fill`.
    void Resize(int rows, int cols, T fill);
    // Room for that many rows without reallocating the row array.
    void ReserveRows(int rows);
    // Room for that many columns in every row.
    void ReserveColumns(int cols);
    void swap(NCDataMatrix& other) noexcept;

    // ---- size and access ----------------------------------------------
    int SizeRows() const { return m_rows; }
    int SizeColumns() const { return m_cols; }
    bool empty() const { return m_rows == 0 || m_cols == 0; }
    // Row i, read-only.
    const Vector& operator[](int i) const
    {
        assert(i >= 1 && i <= m_rows);
        return m_rowArray[i];
    }
    // A writable view of row i.
    NCDataMatrixRow<T> operator()(int i);
    // Writes v at (i, j), keeps all counts exact, returns v.
    T operator()(int i, int j, T v);
    // The transpose, as a view.
    NCDataMatrixPrim<T> prim() const;
    // Total number of missing cells.
    int GetNumMisVal() const { return m_numMis; }
    // Number of missing cells in column j.
    int GetColumnMisVal(int j) const;
    bool HasMissingValues() const { return m_numMis > 0; }
    // Row data pointers for kernels that write cells directly: slot i (1..r)
    // is row i's 1-based data pointer, slot 0 is null. The rows are unlinked
    // from copies first. Whoever writes through them must call
    // RecountMissing() before the matrix is used again, unless no cell
    // changed between missing and present.
    std::vector<T*> GetMatrixAsPointerPointer();
    // Rebuilds every count from the cells.
    void RecountMissing();
    const Vector& front() const { return (*this)[1]; }
    const Vector& back() const { return (*this)[m_rows]; }
    const Vector* begin() const { return m_rowArray ? m_rowArray + 1 : nullptr; }
    const Vector* end() const { return m_rowArray ? m_rowArray + 1 + m_rows : nullptr; }
    // Appends a row; an empty matrix takes the row's size as its columns.
    void push_back(const Vector& row);

    // ---- rows and columns ---------------------------------------------
    Vector GetColumn(int j) const;
    void SetColumn(int j, const Vector& column);
    // Column `to` of this matrix becomes column `from` of `source`.
    void CopyColumn(int to, const NCDataMatrix& source, int from);
    void SetRow(int i, const Vector& row);
    // Row `to` of this matrix becomes row `from` of `source`.
    void CopyRow(int to, const NCDataMatrix& source, int from);
    // Inserts before row `at` (1..rows+1).
    void InsertRow(int at, const Vector& row);
    void InsertRows(int at, const NCDataMatrix& rows);
    void InsertRows(int at, int count, T fill);
    // Inserts before column `at` (1..columns+1).
    void InsertColumn(int at, const Vector& column);
    void InsertColumns(int at, const NCDataMatrix& columns);
    void InsertColumns(int at, int count, T fill);
    // Removes rows from..to (1-based, inclusive), or the listed rows.
    void RemoveRows(int from, int to);
    void RemoveRows(const IndexList& rows);
    void RemoveColumns(int from, int to);
    void RemoveColumns(const IndexList& columns);
    void SwapRows(int i1, int i2);
    void SwapColumns(int j1, int j2);
    // Column k becomes the old column order[k]; the matrix gets as many
    // columns as `order` lists, and a column may be listed more than once.
    void RearrangeColumns(const IndexList& order);
    // The listed rows, in list order.
    NCDataMatrix GetRowSubMatrix(const IndexList& rows) const;
    // Rows r1..r2 and columns c1..c2 (inclusive).
    NCDataMatrix SubMat(int r1, int r2, int c1, int c2) const;
    // Appends the rows (columns) of `other` below (to the right of) this
    // matrix. An empty side takes the other as it is.
    void ConcatRows(const NCDataMatrix& other);
    void ConcatColumns(const NCDataMatrix& other);
    // Column j shifted down by `lag` rows (the vector rule of Lag).
    void LagColumn(int j, int lag);
    // Present cells of column j minus d.
    void SubtractFromColumn(int j, double d);
    // Present cells of row i (column j, the listed columns) times d.
    void MultiplyRow(int i, double d);
    void MultiplyColumn(int j, double d);
    void MultiplyColumns(const IndexList& columns, double d);

    // ---- column statistics --------------------------------------------
    double GetColumnMean(int j) const;
    double GetColumnStdDev(int j) const;
    double GetColumnSS(int j) const;
    double GetColumnSS(int j, double about) const;
    double GetColumnMedian(int j) const;
    void GetColumnMinMax(int j, T& min, T& max) const;
    double GetColumnSkewness(int j) const;
    double GetColumnSkewnessTest(int j) const;
    double GetColumnKurtosis(int j) const;
    // Process capability of column j against the limits: (usl - lsl) / 6s
    // and min(usl - mean, mean - lsl) / 3s with the column's standard
    // deviation s; -99 when s is undefined or 0, or when usl <= lsl.
    double GetColumnCp(int j, double lsl, double usl) const;
    double GetColumnCpk(int j, double lsl, double usl) const;
    // Correlation about the means of two columns (complete pairs).
    double GetColumnCorrelation(int j1, int j2) const;
    // All pairwise column correlations, columns x columns.
    NCDataMatrix GetColumnCorrelation() const;
    void GetRowMinMax(int i, T& min, T& max) const;
    // Mean and sum of squares of all present cells; -99 when none.
    double GetMean() const;
    double GetSS() const;
    // Sum over the columns of the squares about each column's mean.
    double GetSSAroundColumnMeans() const;
    // Gaussian kernel density of column j's present values at the points
    // `at`. A bandwidth of -99 selects Scott's rule s * n^(-1/5); the
    // result is -99 everywhere when the column has fewer than two present
    // values or no spread.
    Vector GetDensity(int j, const Vector& at, double bandwidth = -99.0) const;

    float GetColumnMeanF(int j) const { return static_cast<float>(GetColumnMean(j)); }
    float GetColumnStdDevF(int j) const { return static_cast<float>(GetColumnStdDev(j)); }
    float GetColumnSSF(int j) const { return static_cast<float>(GetColumnSS(j)); }
    float GetColumnMedianF(int j) const { return static_cast<float>(GetColumnMedian(j)); }
    float GetColumnSkewnessF(int j) const { return static_cast<float>(GetColumnSkewness(j)); }
    float GetColumnKurtosisF(int j) const { return static_cast<float>(GetColumnKurtosis(j)); }
    float GetMeanF() const { return static_cast<float>(GetMean()); }
    float GetSSF() const { return static_cast<float>(GetSS()); }

    // ---- products -------------------------------------------------------
    // this * B.
    NCDataMatrix MatrixMultiply(const NCDataMatrix& B) const;
    NCDataMatrix operator*(const NCDataMatrix& B) const { return MatrixMultiply(B); }
    // this * B' through the transpose view.
    NCDataMatrix operator*(const NCDataMatrixPrim<T>& B) const;
    // v' * this: one value per column.
    Vector PreMultiply(const Vector& v) const;
    // A * this.
    NCDataMatrix PreMultiply(const NCDataMatrix& A) const;
    // v' * this over the complete pairs of each column; -99 where a column
    // has none.
    Vector PreMultiplyMisVal(const Vector& v) const;
    // v' * this for operands known to be complete: no missing tests.
    Vector PreMultiplyNonMisVal(const Vector& v) const;
    // this' * B, this * B' and this' * B'.
    NCDataMatrix MultiplyTransposeThis(const NCDataMatrix& B) const;
    NCDataMatrix MultiplyTransposeOther(const NCDataMatrix& B) const;
    NCDataMatrix MultiplyTransposeBoth(const NCDataMatrix& B) const;
    // result = this * B; result is resized.
    void MulMat(const NCDataMatrix& B, NCDataMatrix& result) const;
    // result = this + factor * B; missing where either cell is.
    void AddMat(const NCDataMatrix& B, NCDataMatrix& result, double factor = 1.0) const;

    // ---- in-place transforms ------------------------------------------
    void Transpose();
    // M becomes M' * M (columns x columns).
    void TransformToMprim_mul_M();
    // Inverts a square matrix by Crout LU decomposition with implicit
    // partial pivoting. Returns false, leaving the matrix as it was, when a
    // row is entirely zero. A zero pivot is replaced by 1e-20, so a nearly
    // singular matrix yields a very large inverse instead of a failure.
    bool TransformToInverse();
    // this += factor * t * p' (t has one value per row, p one per column).
    // Missing cells stay missing; cells whose t or p is missing are left.
    void AddVprimV(const Vector& t, const Vector& p, double factor);
    // this += t * p' and this -= t * p'.
    void TransformToAdd_V_x_Vt(const Vector& t, const Vector& p) { AddVprimV(t, p, 1.0); }
    void TransformToSub_V_x_Vt(const Vector& t, const Vector& p) { AddVprimV(t, p, -1.0); }
    // Every row += factor * v (v has one value per column).
    void AddFV(const Vector& v, double factor);
    // Every row -= v, element-wise.
    void TransformToDotSubRowVector(const Vector& v);
    // Column j times scale[j]; a missing or zero scale, or one that maps a
    // cell onto -99, gives missing cells.
    void TransformToColumnScaled(const Vector& scale);
    // Copies with column j times (divided by) v[j], or row i times (divided
    // by) v[i]. A missing factor or zero divisor gives missing cells.
    NCDataMatrix DotMultiplyVector(const Vector& v) const;
    NCDataMatrix DotDivideVector(const Vector& v) const;
    NCDataMatrix DotPreMultiplyVector(const Vector& v) const;
    NCDataMatrix DotPreDivideVector(const Vector& v) const;
    // Each row through the vector's SNV.
    NCDataMatrix SNV() const;

    // ---- regression ---------------------------------------------------
    // The vector rule Regress of v against every column (row): one slope
    // per column (row).
    Vector RegressColumns(const Vector& v) const;
    double RegressOneColumn(int j, const Vector& v) const;
    Vector RegressRows(const Vector& v) const;
    // The NIPALS projections with missing values. Column j gives
    //   p_j = sum_i e_ij t_i / d
    // over the rows where both are present; d = t't when column j and t are
    // complete, else max(t't / 3, sum of t_i^2 over the rows used). The
    // one-third floor keeps variables with many missing cells from getting
    // inflated loadings. p_j is missing when |d| <= 1e-30, when nothing is
    // used, or when `groups` labels column j with `group`.
    Vector SpecialNipalsRegressColumnsFix(const Vector& t, const IndexList* groups = nullptr, int group = 0) const;
    double SpecialNipalsRegressOneColumnFix(int j, const Vector& t) const;
    // The same rule along the rows: t_i = sum_j e_ij p_j / max(p'p / 3,
    // sum of p_j^2 over the columns used), columns labelled `group` skipped.
    Vector SpecialNipalsRegressRowsFix(const Vector& p, const IndexList* groups = nullptr, int group = 0) const;
    // Least-squares coefficients (X X')^-1 X Y' of the normal equations with
    // variables in rows and observations in columns (X r x c, Y q x c):
    // r x q. No centring, no intercept; a singular X X' is not reported.
    NCDataMatrix GetRegressionCoefficients(const NCDataMatrix& Y) const;
    // The column with the largest sum of squares about 0; a later column
    // wins only when it exceeds the best so far by a factor 1.000001, so
    // near ties keep the earlier column.
    Vector GetNIPALSStartColumn() const;

    // Routes the result of the next operation into `target` without a
    // temporary: m.Result(&v).GetColumn(3), m.Result(&w).RegressRows(p).
    NCMatOpResultProxy<T> Result(Vector* target) const;
    NCMatOpResultProxy<T> Result(NCDataMatrix* target) const;

    // ---- decomposition ------------------------------------------------
    // Decomposes a copy; `ok`, when given, receives whether the
    // decomposition converged (the status of the result says the same).
    std::unique_ptr<NCSVD<T>> GetSVD(bool* ok = nullptr) const;
    // Decomposes this matrix, which becomes U.
    std::unique_ptr<NCSVD<T>> TransformToSVD(bool* ok = nullptr);

    // ---- streaming ----------------------------------------------------
    bool QvStreamableStartWrite(std::ostream& out) const override;
    // Returns false for another magic or version (the matrix untouched) and
    // for a damaged record (the matrix left empty).
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;
    static short GetMyQvStreamVersionNumber() { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    static short GetQvStreamVersionNumber() { return MyStreamableData.GetQvStreamVersionNumber(); }

protected:
    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);
    bool QvStreamableWriteBases(std::ostream& out) const;
    bool QvStreamableReadBases(std::istream& in);
    bool ReadStreamDirectory(InputStreamDirectory& directory);
    static QvStreamableData MyStreamableData; // "NCDM", version 4

    // Decomposes `a` in place (it becomes U) and hands it to the result.
    static std::unique_ptr<NCSVD<T>> SVD(std::unique_ptr<NCDataMatrix> a, bool* ok);

private:
    friend class NCDataMatrixRow<T>;
    friend class NCDataMatrixRows<T>;
    friend class NCMatOpResultProxy<T>;
    friend class NCVecOpResultProxy<T>;
    friend class NCDataVector<T>;
    template <class>
    friend class NCSVD;
    friend struct NCNipalsDeflation;

    // Keeps the column counts and the total exact around an operation on
    // the cells of row i: the row's missing cells are taken out of the
    // counts at construction and the row's new ones put back at
    // destruction, also during unwinding.
    class MissingCountFixer {
    public:
        MissingCountFixer(NCDataMatrix& m, int i);
        ~MissingCountFixer();
        MissingCountFixer(const MissingCountFixer&) = delete;
        MissingCountFixer& operator=(const MissingCountFixer&) = delete;

    private:
        NCDataMatrix& m_matrix;
        int m_row;
    };
    MissingCountFixer GetMissingCountFixer(int i);

    // The ...Impl members write into a caller-supplied result and throw
    // NCError when it is null.
    void GetColumnImpl(int j, Vector* result) const;
    void GetNIPALSStartColumnImpl(Vector* result) const;
    void SNVImpl(NCDataMatrix* result) const;
    void DotMultiplyVectorImpl(const Vector& v, NCDataMatrix* result) const;
    void MatrixMultiplyImpl(const NCDataMatrix& B, NCDataMatrix* result) const;
    void PreMultiplyImpl(const Vector& v, Vector* result) const;
    void RegressColumnsImpl(const Vector& v, Vector* result) const;
    void RegressRowsImpl(const Vector& v, Vector* result) const;
    void SpecialNipalsRegressColumnsFixImpl(const Vector& t, const IndexList* groups, int group,
                                            Vector* result) const;
    void SpecialNipalsRegressRowsFixImpl(const Vector& p, const IndexList* groups, int group, Vector* result) const;
    void GetColumnCorrelationImpl(NCDataMatrix* result) const;

    // The kernels behind GetSS and the NIPALS members, over every row
    // (AllRows) or over a selection of rows (NCDataMatrixRows). Sizes are
    // the caller's to check.
    NCRowTable<T> AllRows() const
    {
        return {m_rowArray, nullptr, m_rows, m_cols, m_colMis ? m_colMis->GetPtr() : nullptr, m_numMis};
    }
    static double SumSquares(const NCRowTable<T>& rows);
    static void StartColumn(const NCRowTable<T>& rows, Vector* result);
    static void NipalsColumns(const NCRowTable<T>& rows, const Vector& t, const IndexList* groups, int group,
                              Vector* result);
    static void NipalsRows(const NCRowTable<T>& rows, const Vector& p, const IndexList* groups, int group,
                           Vector* result);
    // NipalsRows into `scores`, then NipalsColumns on those scores into
    // `loadings`, in one sweep over the rows: the NIPALS iterations read the
    // matrix once instead of twice, with the same results to the bit.
    static void NipalsRowsThenColumns(const NCRowTable<T>& rows, const Vector& p, const IndexList* groups, int group,
                                      Vector* scores, Vector* loadings);
    // The same behind a public member: the result and the sizes are checked
    // first, and an error names the member as called through `owner`, the
    // qualified prefix of the calling class.
    static void CheckedStartColumn(const NCRowTable<T>& rows, Vector* result, const char* owner);
    static void CheckedNipalsColumns(const NCRowTable<T>& rows, const Vector& t, const IndexList* groups, int group,
                                     Vector* result, const char* owner);
    static void CheckedNipalsRows(const NCRowTable<T>& rows, const Vector& p, const IndexList* groups, int group,
                                  Vector* result, const char* owner);
    // AddVprimV(t, p, -1.0) and, over each row as soon as it is updated, the
    // sum of squares of the result (SumSquares) and the column projection on
    // u (NipalsColumns), to the bit. When an updated cell lands on exactly
    // -99 the rows' gaps change under the sums: the deflation is kept, *ss
    // and *w are not written, and the result is false.
    bool DeflateThenColumns(const Vector& t, const Vector& p, const Vector& u, double* ss, Vector* w);
    static void CheckedNipalsRowsThenColumns(const NCRowTable<T>& rows, const Vector& p, const IndexList* groups,
                                             int group, Vector* scores, Vector* loadings, const char* owner);
    void GetDensityImpl(int j, const Vector& at, double bandwidth, Vector* result) const;

    static constexpr const char* Owner = "NCDataMatrix<FloatType>::";

    bool IsShared() const { return m_shared && m_shared->refCount.load(std::memory_order_acquire) > 1; }
    // Gives this matrix a row array and column counts of its own.
    void UnlinkMe();
    // Drops this matrix's hold on the row array (frees it when last).
    void Release() noexcept;
    // Unshared row array with room for at least `rows` rows.
    void EnsureRowCapacity(int rows);
    // Fresh storage for r x c cells of value `fill`, counts set up.
    void Allocate(int rows, int cols, T fill);
    // Row i of this matrix, for writing; the matrix must be unshared.
    Vector& RowForWriting(int i) { return m_rowArray[i]; }
    // The column counts for writing, unlinked from copies.
    int* ColumnCounts();
    // Adds (sign +1) or removes (-1) a row's missing cells to or from the
    // column counts and the total.
    void AddRowToCounts(const Vector& row, int sign);
    // Column counts and total from the rows' own (exact) counts.
    void RecountColumns();
    // Exchanges two vectors' storage handles; no reference count changes.
    static void SwapRowStorage(Vector& a, Vector& b) noexcept;
    void CheckRow(int i, const char* member) const;
    void CheckColumn(int j, const char* member) const;

    NCSharedBlock* m_shared = nullptr;
    int m_cols = 0;
    int m_rows = 0;
    Vector* m_rowArray = nullptr; // slots 0..reserved; slot 0 unused
    IndexList* m_colMis = nullptr;
    int m_numMis = 0;
    int m_reservedRows = 0;
    mutable bool m_streaming = false;
};

// A writable row of a matrix. Whole-row operations keep the matrix's column
// counts and total exact.
template <class T>
class VELTANCMAT_API NCDataMatrixRow {
public:
    using Vector = NCDataVector<T>;

    NCDataMatrixRow(NCDataMatrix<T>* matrix, int i) : m_matrix(matrix), m_row(i) {}
    NCDataMatrixRow(const NCDataMatrixRow&) = default;

    operator const Vector&() const { return (*m_matrix)[m_row]; }
    const Vector& GetVector() const { return (*m_matrix)[m_row]; }
    const T& operator[](int j) const { return (*m_matrix)[m_row][j]; }
    int Size() const { return m_matrix->SizeColumns(); }
    // Writes v at column j.
    T operator()(int j, T v) { return (*m_matrix)(m_row, j, v); }

    // The row's cells become those of v (which must have the row's size).
    NCDataMatrixRow& operator=(const Vector& v);
    NCDataMatrixRow& operator=(const NCDataMatrixRow& other) { return *this = other.GetVector(); }
    NCDataMatrixRow& operator+=(const Vector& v);
    NCDataMatrixRow& operator-=(const Vector& v);
    NCDataMatrixRow& operator*=(double d);
    void Abs();
    void DetrendMean(double& mean);
    void TransformTo_Add_d_x_Vt(double d, const Vector& v);
    void TransformTo_Sub_d_x_Vt(double d, const Vector& v);

private:
    template <class Op>
    void Apply(Op op);

    NCDataMatrix<T>* m_matrix;
    int m_row;
};

// A read-only column of a matrix.
template <class T>
class NCDataMatrixCol {
public:
    NCDataMatrixCol(const NCDataMatrix<T>* matrix, int j) : m_matrix(matrix), m_col(j) {}
    const T& operator[](int i) const { return (*m_matrix)[i][m_col]; }
    int Size() const { return m_matrix->SizeRows(); }
    int GetNumMisVal() const { return m_matrix->GetColumnMisVal(m_col); }
    NCDataVector<T> GetVector() const { return m_matrix->GetColumn(m_col); }

private:
    const NCDataMatrix<T>* m_matrix;
    int m_col;
};

// The transpose of a matrix, as a view: its rows are the matrix's columns.
template <class T>
class NCDataMatrixPrim {
public:
    explicit NCDataMatrixPrim(const NCDataMatrix<T>* matrix) : m_matrix(matrix) {}
    NCDataMatrixCol<T> operator[](int j) const { return NCDataMatrixCol<T>(m_matrix, j); }
    int SizeRows() const { return m_matrix->SizeColumns(); }
    int SizeColumns() const { return m_matrix->SizeRows(); }
    // M' * B and M' * B'.
    NCDataMatrix<T> operator*(const NCDataMatrix<T>& B) const { return m_matrix->MultiplyTransposeThis(B); }
    NCDataMatrix<T> operator*(const NCDataMatrixPrim& B) const { return m_matrix->MultiplyTransposeBoth(B.prim()); }
    const NCDataMatrix<T>& prim() const { return *m_matrix; }

private:
    const NCDataMatrix<T>* m_matrix;
};

// Routes a matrix operation's result into a target chosen by the caller
// (see NCDataMatrix::Result). Each call forwards to the operation's ...Impl
// member, which refuses a null target.
template <class T>
class VELTANCMAT_API NCMatOpResultProxy {
public:
    using Vector = NCDataVector<T>;
    using Matrix = NCDataMatrix<T>;
    using IndexList = NCIntegralVector<int, -99>;

    NCMatOpResultProxy(const Matrix* source, Vector* vectorTarget, Matrix* matrixTarget)
        : m_source(source), m_vector(vectorTarget), m_matrix(matrixTarget)
    {
    }

    // Vector results.
    void GetColumn(int j) { m_source->GetColumnImpl(j, m_vector); }
    void GetNIPALSStartColumn() { m_source->GetNIPALSStartColumnImpl(m_vector); }
    void PreMultiply(const Vector& v) { m_source->PreMultiplyImpl(v, m_vector); }
    void RegressColumns(const Vector& v) { m_source->RegressColumnsImpl(v, m_vector); }
    void RegressRows(const Vector& v) { m_source->RegressRowsImpl(v, m_vector); }
    void SpecialNipalsRegressColumnsFix(const Vector& t, const IndexList* groups = nullptr, int group = 0)
    {
        m_source->SpecialNipalsRegressColumnsFixImpl(t, groups, group, m_vector);
    }
    void SpecialNipalsRegressRowsFix(const Vector& p, const IndexList* groups = nullptr, int group = 0)
    {
        m_source->SpecialNipalsRegressRowsFixImpl(p, groups, group, m_vector);
    }
    void GetDensity(int j, const Vector& at, double bandwidth = -99.0)
    {
        m_source->GetDensityImpl(j, at, bandwidth, m_vector);
    }

    // Matrix results.
    void MatrixMultiply(const Matrix& B) { m_source->MatrixMultiplyImpl(B, m_matrix); }
    void SNV() { m_source->SNVImpl(m_matrix); }
    void DotMultiplyVector(const Vector& v) { m_source->DotMultiplyVectorImpl(v, m_matrix); }
    void GetColumnCorrelation() { m_source->GetColumnCorrelationImpl(m_matrix); }

private:
    const Matrix* m_source;
    Vector* m_vector;
    Matrix* m_matrix;
};

// Routes a vector operation's result into a target (see NCDataVector::Result).
template <class T>
class VELTANCMAT_API NCVecOpResultProxy {
public:
    NCVecOpResultProxy(const NCDataVector<T>* source, NCDataVector<T>* target) : m_source(source), m_target(target)
    {
    }
    // target = source' * M.
    void operator*(const NCDataMatrix<T>& M) { M.PreMultiplyImpl(*m_source, m_target); }

private:
    const NCDataVector<T>* m_source;
    NCDataVector<T>* m_target;
};

template <class T>
inline NCDataMatrixRow<T> NCDataMatrix<T>::operator()(int i)
{
    assert(i >= 1 && i <= m_rows);
    return NCDataMatrixRow<T>(this, i);
}

template <class T>
inline NCDataMatrixPrim<T> NCDataMatrix<T>::prim() const
{
    return NCDataMatrixPrim<T>(this);
}

template <class T>
inline NCMatOpResultProxy<T> NCDataMatrix<T>::Result(Vector* target) const
{
    return NCMatOpResultProxy<T>(this, target, nullptr);
}

template <class T>
inline NCMatOpResultProxy<T> NCDataMatrix<T>::Result(NCDataMatrix* target) const
{
    return NCMatOpResultProxy<T>(this, nullptr, target);
}

template <class T>
inline NCDataMatrix<T> NCDataMatrix<T>::operator*(const NCDataMatrixPrim<T>& B) const
{
    return MultiplyTransposeOther(B.prim());
}

template <class T>
inline NCVecOpResultProxy<T> NCDataVector<T>::Result(NCDataVector* target) const
{
    return NCVecOpResultProxy<T>(this, target);
}

extern template class NCDataMatrix<float>;
extern template class NCDataMatrix<double>;
extern template class NCDataMatrixRow<float>;
extern template class NCDataMatrixRow<double>;
