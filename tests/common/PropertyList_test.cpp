#include "app/PrefsController.h"
#include "common/PropertyList.h"

#include <QDateTime>

#include <gtest/gtest.h>

TEST(PropertyList, RoundTripsEveryValueKindInBothForms) {
    const QVariantMap value{{"string", QStringLiteral(u"Grüße ♫")},
                            {"int", qlonglong(-42)},
                            {"big", qlonglong(1) << 40},
                            {"real", 2.5},
                            {"bool", true},
                            {"data", QByteArray("\0\1\2", 3)},
                            {"date", QDateTime(QDate(2024, 3, 1), QTime(12, 30, 5), Qt::UTC)},
                            {"array", QVariantList{"a", qlonglong(1)}},
                            {"dict", QVariantMap{{"k", "v"}}}};
    for (const QByteArray &encoded : {PropertyList::toXml(value), PropertyList::toBinary(value)}) {
        const QVariantMap back = PropertyList::fromData(encoded).toMap();
        EXPECT_EQ(back.value("string").toString(), value.value("string").toString());
        EXPECT_EQ(back.value("int").toLongLong(), -42);
        EXPECT_EQ(back.value("big").toLongLong(), qlonglong(1) << 40);
        EXPECT_DOUBLE_EQ(back.value("real").toDouble(), 2.5);
        EXPECT_TRUE(back.value("bool").toBool());
        EXPECT_EQ(back.value("data").toByteArray(), QByteArray("\0\1\2", 3));
        EXPECT_EQ(back.value("date").toDateTime(), value.value("date").toDateTime());
        EXPECT_EQ(back.value("array").toList().size(), 2);
        EXPECT_EQ(back.value("dict").toMap().value("k").toString(), "v");
    }
}

TEST(PropertyList, BadInputGivesAnError) {
    QString error;
    EXPECT_FALSE(PropertyList::fromData(QByteArray("not a plist"), &error).isValid());
    EXPECT_FALSE(error.isEmpty());
    EXPECT_FALSE(PropertyList::fromData(QByteArray(), &error).isValid());
}

TEST(PropertyList, DefaultResourcesCarryTheGenreVocabulary) {
    const QVariantMap res = PrefsController::defaultResources();
    const QStringList genres = res.value("genres").toStringList();
    ASSERT_EQ(genres.size(), 192);
    EXPECT_EQ(genres.at(17), "Rock");
    EXPECT_EQ(genres.at(191), "Psybient");
}
