#pragma once

#include <QString>

struct RadioModel
{
    QLatin1String esnPrefix;
    QLatin1String model;
    QLatin1String band;
};

/// The row of the table for this electronic serial number, "unknown" in both columns when there is none; logs
/// nothing.
const RadioModel &findRadioModel(const QString &esn);

/// The model of the radio with this electronic serial number, such as "ICF-3400"; "unknown" when its first
/// four characters are not in the table, which is logged unless the number is empty.
QString getRadioModel(const QString &esn);

/// The band of that radio, "VHF" or "UHF"; otherwise as getRadioModel().
QString getRadioBand(const QString &esn);
