// Which filters FFmpeg's slice threads help, for one stream alone, and what they cost.
#include "compare.h"

#include <algorithm>

namespace bench
{

void RegisterFilterTable()
{
    const std::vector<std::string> vec_Filters = {
        "hflip",    "transpose",          "scale=iw/2:ih/2", "rotate=0.1", "drawbox=t=8", "lutyuv=y=negval",
        "eq=1.2",   "hue=h=30",           "unsharp",         "boxblur=2",  "gblur=2",     "hqdn3d",
        "vignette", "colorbalance=rs=0.2"};
    for (const Size& size : {Size{320, 180}, Size{1920, 1080}}) {
        for (const std::string& szFilter : vec_Filters) {
            Effort effort = EffortFor(size);
            effort.nRounds = std::min(effort.nRounds, 31);
            effort.nInstances = 1;
            RegisterComparison("filters/" + szFilter.substr(0, szFilter.find('=')) + "/" + Text(size),
                               effort, [=] {
                                   Job job = VideoFilter(size, Mode::kWhole, szFilter);
                                   std::erase_if(job.vec_Paths, [](const Path& path) {
                                       return path.szName != "library" && path.szName != "threads";
                                   });
                                   return job;
                               });
        }
    }
}

} // namespace bench
