#pragma once

/// Shows and changes the features through which the server is administered.
bool ConfigureFeatures();
