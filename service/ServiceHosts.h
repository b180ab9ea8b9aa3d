// The three configured hosts (CMake: SKIFFPORT_DETECTION_HOST, SKIFFPORT_DEFAULT_SERVICE_HOST and
// SKIFFPORT_STAGING_SERVICE_HOST).
#pragma once

/// Returns the address document.
inline constexpr wchar_t DetectionHost[] = L"" SKIFFPORT_DETECTION_HOST;
inline constexpr char DetectionProbeUrl[] = "https://" SKIFFPORT_DETECTION_HOST;
/// The service's default host, probed before each login.
inline constexpr wchar_t DefaultServiceHost[] = L"" SKIFFPORT_DEFAULT_SERVICE_HOST;
inline constexpr char DefaultServiceProbeUrl[] = "https://" SKIFFPORT_DEFAULT_SERVICE_HOST;
/// Used when detection fails.
inline constexpr wchar_t StagingServiceHost[] = L"" SKIFFPORT_STAGING_SERVICE_HOST;
