#include "core/fs/ZnPath.h"

#include "core/platform/ZnDirPlatform.h"

ZnString withForwardSlashes(ZnString path) {
    path.replace("\\", "/");
    return path;
}

ZnString parentPath(const ZnString& path) {
    const ZnString normal = withForwardSlashes(znDirPlatform()->normalizePath(path));
    std::string_view text = normal.view();
    while (text.size() > 1 && text.ends_with('/'))
        text.remove_suffix(1);
    const std::size_t lastSlash = text.rfind('/');
    return lastSlash == std::string_view::npos ? ZnString() : ZnString(text.substr(0, lastSlash));
}

ZnString joinPath(const ZnString& base, const ZnString& name) {
    if (base.isEmpty())
        return name;
    if (name.isEmpty())
        return base;
    ZnString joined = withForwardSlashes(base);
    if (!joined.endsWith("/"))
        joined += '/';
    return znDirPlatform()->normalizePath(joined += name);
}
