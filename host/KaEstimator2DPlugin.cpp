#include "host/KaEstimator2DPlugin.h"

KaEstimator2DPlugin::KaEstimator2DPlugin(QObject* parent) : KaPluginObject(parent)
{
    SetName(tr("Value Estimator 2D").toStdString());
}

// The verification record hosts of the older plug-in protocol check before
// they take the instance.
extern "C" Q_DECL_EXPORT const char* qt_plugin_query_verification_data()
{
    return "pattern=QT_PLUGIN_VERIFICATION_DATA\n"
           "version=4.5.1\n"
           "debug=false\n"
           "buildkey=Windows msvc release full-config";
}
