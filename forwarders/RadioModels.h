#pragma once

#include <QString>

/// The model of the radio with this electronic serial number, such as "ICF-3400"; "unknown" when its first
/// four characters are not in the table, which is logged unless the number is empty.
QString getRadioModel(const QString &esn);

/// The band of that radio, "VHF" or "UHF"; otherwise as getRadioModel().
QString getRadioBand(const QString &esn);
