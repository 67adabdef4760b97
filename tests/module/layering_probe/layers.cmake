# Two libraries: "high" may use "low", "low" may use nothing.
set(CR_LAYERS "low|low|;high|high|low")
