#include "forwarders/RadioModels.h"

#include <QDebug>

namespace {

constexpr int prefixLength = 4;

const RadioModel models[] = {
    {QLatin1String("3798"), QLatin1String("ICF-3400"), QLatin1String("VHF")},
    {QLatin1String("2893"), QLatin1String("ICF-3162"), QLatin1String("VHF")},
    {QLatin1String("3401"), QLatin1String("ICF-3262"), QLatin1String("VHF")},
    {QLatin1String("2894"), QLatin1String("ICF-4162"), QLatin1String("UHF")},
    {QLatin1String("3402"), QLatin1String("ICF-4262"), QLatin1String("UHF")},
    {QLatin1String("2979"), QLatin1String("ICF-5062"), QLatin1String("VHF")},
    {QLatin1String("2980"), QLatin1String("ICF-6062"), QLatin1String("UHF")},
    {QLatin1String("3079"), QLatin1String("IC-FR5100"), QLatin1String("VHF")},
    {QLatin1String("3063"), QLatin1String("IC-FR6100"), QLatin1String("UHF")},
};
const RadioModel unknownModel = {QLatin1String(), QLatin1String("unknown"), QLatin1String("unknown")};

const RadioModel &modelOf(const QString &esn)
{
    const RadioModel &model = findRadioModel(esn);
    if (&model == &unknownModel && !esn.isEmpty())
        qInfo() << "Unknown model : " << esn;
    return model;
}

} // namespace

const RadioModel &findRadioModel(const QString &esn)
{
    const QString prefix = esn.left(prefixLength);
    for (const RadioModel &model : models) {
        if (prefix == model.esnPrefix)
            return model;
    }
    return unknownModel;
}

QString getRadioModel(const QString &esn)
{
    return modelOf(esn).model;
}

QString getRadioBand(const QString &esn)
{
    return modelOf(esn).band;
}
