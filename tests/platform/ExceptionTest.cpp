#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <gtest/gtest.h>

namespace {

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override { MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR); }
    void TearDown() override { MessageCatalog::SetLanguage("C"); }
};

TEST_F(CatalogueTest, TranslatesPlainText)
{
    EXPECT_EQ(ExceptionMessage::translate("Vectors are of different size.").str(),
              "Die Vektoren sind unterschiedlich lang.");
}

TEST_F(CatalogueTest, ContextChoosesAmongEqualTexts)
{
    EXPECT_EQ(ExceptionMessage::translate("Calculation of", "Component aborted.").str(),
              "Berechnung der Komponente abgebrochen.");
    EXPECT_EQ(ExceptionMessage::translate("CV = Cross-validation", "Component aborted.").str(),
              "Kreuzvalidierung der Komponente abgebrochen.");
    // The same text without a context, or in a context the catalogue lacks,
    // has no translation.
    EXPECT_EQ(ExceptionMessage::translate("Component aborted.").str(), "Component aborted.");
    EXPECT_EQ(ExceptionMessage::translate("Calculations of", "Component aborted.").str(), "Component aborted.");
}

TEST_F(CatalogueTest, UnknownTextComesBackUnchanged)
{
    EXPECT_EQ(ExceptionMessage::translate("No such text {1}.").str(), "No such text {1}.");
    EXPECT_EQ(ExceptionMessage::translate("Scale type", "No such text.").str(), "No such text.");
}

TEST_F(CatalogueTest, TranslationMayReorderPlaceholders)
{
    ExceptionMessage m = ExceptionMessage::translate("Column {1} of {2} could not be read.");
    m % "3" % "7";
    EXPECT_EQ(m.str(), "Von 7 Spalten konnte Spalte 3 nicht gelesen werden.");
    EXPECT_EQ(m.source(), "Column {1} of {2} could not be read.");
}

TEST_F(CatalogueTest, WhatIsTheTranslatedFilledText)
{
    NCError e(ExceptionMessage::translate("Component {1} cannot be computed.") % "2", NCError::Error);
    EXPECT_STREQ(e.what(), "Komponente 2 kann nicht berechnet werden.");
}

TEST(CatalogueFallback, UnknownLanguageMeansNoTranslation)
{
    MessageCatalog::SetLanguage("xx_YY.UTF-8", VELTAN_TEST_LOCALE_DIR);
    EXPECT_EQ(ExceptionMessage::translate("Vectors are of different size.").str(), "Vectors are of different size.");
    MessageCatalog::SetLanguage("C");
}

TEST(ExceptionMessage, PlaceholdersFillInOrder)
{
    ExceptionMessage m = ExceptionMessage::translate("{2} before {1}, {1} again, {3} open");
    m % "first" % std::string("second");
    EXPECT_EQ(m.str(), "second before first, first again, {3} open");
}

TEST(ExceptionMessage, MalformedPlaceholdersStayLiteral)
{
    ExceptionMessage m = ExceptionMessage::translate("{0} {} {x} {1 {1}} {");
    m % "A";
    EXPECT_EQ(m.str(), "{0} {} {x} {1 A} {");
}

TEST(ExceptionMessage, PlaceholderOptionsAreDroppedWithTheirBraces)
{
    ExceptionMessage m = ExceptionMessage::translate("{1,num=fixed,precision=3} {2}bytes, {3,open {1,x");
    m % "1.500" % "G" % "C";
    EXPECT_EQ(m.str(), "1.500 Gbytes, {3,open {1,x");
}

TEST(ExceptionMessage, NullTextIsEmpty)
{
    EXPECT_EQ(ExceptionMessage::translate(nullptr).str(), "");
    EXPECT_EQ((ExceptionMessage::translate("{1}") % static_cast<const char*>(nullptr)).str(), "");
}

TEST(ExceptionMessageList, JoinsLinesInOrder)
{
    ExceptionMessageList list;
    list << ExceptionMessage::translate("one") << (ExceptionMessage::translate("two {1}") % "2");
    NCError e(list, NCError::Warning);
    EXPECT_STREQ(e.what(), "one\ntwo 2");
    EXPECT_EQ(e.GetLevel(), 1);
    EXPECT_EQ(e.messages().messages().size(), 2u);
}

TEST(ExceptionTree, LevelsKeepTheirValues)
{
    EXPECT_EQ(static_cast<int>(NCError::Warning), 1);
    EXPECT_EQ(static_cast<int>(NCError::Error), 2);
    NCError copy = NCError(ExceptionMessage::translate("x"), NCError::Warning);
    NCError assigned;
    assigned = copy;
    EXPECT_EQ(assigned.GetLevel(), NCError::Warning);
    EXPECT_STREQ(assigned.what(), "x");
}

TEST(ExceptionTree, InternalErrorNamesTheMember)
{
    try {
        throw NCInternalError("NCDataVector<FloatType>::Difference",
                              ExceptionMessage::translate("Vectors are of different size."));
    } catch (const NCError& e) {
        const auto* internal = dynamic_cast<const NCInternalError*>(&e);
        ASSERT_NE(internal, nullptr);
        EXPECT_EQ(internal->GetWhere(), "NCDataVector<FloatType>::Difference");
        EXPECT_NE(std::string(e.what()).find("Vectors are of different size."), std::string::npos);
        EXPECT_NE(std::string(e.what()).find("Difference"), std::string::npos);
    }
}

TEST(ExceptionTree, CancelIsNotAnNCError)
{
    bool caughtAsNCError = false;
    bool caughtAsException = false;
    try {
        try {
            throw CancelException(ExceptionMessage::translate("Cluster analysis aborted."));
        } catch (const NCError&) {
            caughtAsNCError = true;
        }
    } catch (const Exception& e) {
        caughtAsException = true;
        EXPECT_STREQ(e.what(), "Cluster analysis aborted.");
    }
    EXPECT_FALSE(caughtAsNCError);
    EXPECT_TRUE(caughtAsException);
}

TEST(ExceptionTree, InvalidArgumentKeepsItsTextVerbatim)
{
    InvalidArgument e("window must be positive: {1}");
    EXPECT_STREQ(e.what(), "window must be positive: {1}");
    const std::exception& base = e;
    EXPECT_STREQ(base.what(), "window must be positive: {1}");
}

} // namespace
